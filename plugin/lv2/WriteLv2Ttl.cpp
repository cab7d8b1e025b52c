// SPDX-License-Identifier: GPL-3.0-or-later
// Writes the LV2 bundle's Turtle from the parameter table, at build time:
//   quenda-lv2-ttl BUNDLE_DIR PLUGIN_URI BINARY_NAME

#include "plugin/lv2/Lv2Ports.h"

#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

namespace
{
const char* const prefixes =
    "@prefix atom:  <http://lv2plug.in/ns/ext/atom#> .\n"
    "@prefix bufsz: <http://lv2plug.in/ns/ext/buf-size#> .\n"
    "@prefix doap:  <http://usefulinc.com/ns/doap#> .\n"
    "@prefix foaf:  <http://xmlns.com/foaf/0.1/> .\n"
    "@prefix lv2:   <http://lv2plug.in/ns/lv2core#> .\n"
    "@prefix opts:  <http://lv2plug.in/ns/ext/options#> .\n"
    "@prefix pprops: <http://lv2plug.in/ns/ext/port-props#> .\n"
    "@prefix pset:  <http://lv2plug.in/ns/ext/presets#> .\n"
    "@prefix rdfs:  <http://www.w3.org/2000/01/rdf-schema#> .\n"
    "@prefix state: <http://lv2plug.in/ns/ext/state#> .\n"
    "@prefix ui:    <http://lv2plug.in/ns/extensions/ui#> .\n"
    "@prefix units: <http://lv2plug.in/ns/extensions/units#> .\n"
    "@prefix urid:  <http://lv2plug.in/ns/ext/urid#> .\n"
    "@prefix xsd:   <http://www.w3.org/2001/XMLSchema#> .\n\n";

std::string number (float value)
{
    char text[32];
    std::snprintf (text, sizeof (text), "%.9g", (double) value);
    std::string result (text);
    return result.find_first_of (".e") == std::string::npos ? result + ".0" : result;
}

std::string unitFor (std::string_view unit)
{
    if (unit == "dB")
        return "units:db";
    if (unit == "Hz")
        return "units:hz";
    // dB per octave has no LV2 unit: a unit of our own says how to print it.
    if (unit == "dB/oct")
        return "[ a units:Unit ; rdfs:label \"decibels per octave\" ; units:symbol \"dB/oct\" ; units:render \"%.2f dB/oct\" ]";
    return {};
}

void audioPort (std::ostream& out, unsigned index, bool input, const char* symbol, const char* name)
{
    out << "\t\ta lv2:AudioPort , lv2:" << (input ? "InputPort" : "OutputPort") << " ;\n"
        << "\t\tlv2:index " << index << " ;\n"
        << "\t\tlv2:symbol \"" << symbol << "\" ;\n"
        << "\t\tlv2:name \"" << name << "\" ;\n";
}

std::string pluginTtl (const std::string& uri, const std::string& binary)
{
    std::ostringstream out;
    out << prefixes
        << "<" << uri << ">\n"
        << "\ta lv2:Plugin , lv2:EQPlugin , doap:Project ;\n"
        << "\tdoap:name \"Quenda\" ;\n"
        << "\tdoap:maintainer [ a foaf:Person ; foaf:name \"Selvane\" ; foaf:homepage <https://selvane.example> ] ;\n"
        << "\tdoap:license <https://www.gnu.org/licenses/gpl-3.0> ;\n"
        << "\tlv2:binary <" << binary << "> ;\n"
        << "\tlv2:optionalFeature lv2:hardRTCapable , opts:options , bufsz:boundedBlockLength ;\n"
        << "\tlv2:requiredFeature urid:map ;\n"
        << "\topts:supportedOption bufsz:maxBlockLength , bufsz:nominalBlockLength ;\n"
        << "\tlv2:extensionData state:interface ;\n"
        << "\tui:ui <" << uri << Lv2Ports::uiSuffix << "> ;\n";

    const char* audio[][2] = { { "in_left", "Left In" }, { "in_right", "Right In" }, { "out_left", "Left Out" }, { "out_right", "Right Out" } };

    out << "\tlv2:port [\n";
    for (unsigned i = 0; i < 4; ++i)
    {
        audioPort (out, Lv2Ports::inputLeft + i, i < 2, audio[i][0], audio[i][1]);
        out << "\t] , [\n";
    }

    for (std::size_t i = 0; i < ParameterTable::numParameters; ++i)
    {
        const auto& entry = ParameterTable::entry (i);
        out << "\t\ta lv2:ControlPort , lv2:InputPort ;\n"
            << "\t\tlv2:index " << Lv2Ports::parameterPort (i) << " ;\n"
            << "\t\tlv2:symbol \"" << entry.id << "\" ;\n"
            << "\t\tlv2:name \"" << entry.name << "\" ;\n"
            << "\t\tlv2:default " << number (entry.defaultValue) << " ;\n"
            << "\t\tlv2:minimum " << number (entry.minimum) << " ;\n"
            << "\t\tlv2:maximum " << number (entry.maximum) << " ;\n";

        if (entry.isSwitch)
            out << "\t\tlv2:portProperty lv2:toggled ;\n";
        else if (entry.unit == "Hz")
            out << "\t\tlv2:portProperty pprops:logarithmic ;\n";

        if (const auto unit = unitFor (entry.unit); ! unit.empty())
            out << "\t\tunits:unit " << unit << " ;\n";

        out << "\t] , [\n";
    }

    out << "\t\ta lv2:ControlPort , lv2:OutputPort ;\n"
        << "\t\tlv2:index " << Lv2Ports::latency << " ;\n"
        << "\t\tlv2:symbol \"latency\" ;\n"
        << "\t\tlv2:name \"Latency\" ;\n"
        << "\t\tlv2:minimum 0 ;\n"
        << "\t\tlv2:maximum 192000 ;\n"
        << "\t\tlv2:designation lv2:latency ;\n"
        << "\t\tlv2:portProperty lv2:reportsLatency , lv2:integer , pprops:notOnGUI ;\n"
        << "\t\tunits:unit units:frame ;\n"
        << "\t] , [\n"
        << "\t\ta lv2:ControlPort , lv2:InputPort ;\n"
        << "\t\tlv2:index " << Lv2Ports::enabled << " ;\n"
        << "\t\tlv2:symbol \"enabled\" ;\n"
        << "\t\tlv2:name \"Enabled\" ;\n"
        << "\t\tlv2:default 1 ;\n"
        << "\t\tlv2:minimum 0 ;\n"
        << "\t\tlv2:maximum 1 ;\n"
        << "\t\tlv2:designation lv2:enabled ;\n"
        << "\t\tlv2:portProperty lv2:toggled ;\n"
        << "\t] .\n";
    return out.str();
}

std::string uiTtl (const std::string& uri)
{
    std::ostringstream out;
    out << prefixes
        << "<" << uri << Lv2Ports::uiSuffix << ">\n"
        << "\tlv2:requiredFeature ui:idleInterface , <http://lv2plug.in/ns/ext/instance-access> ;\n"
        << "\tlv2:optionalFeature ui:resize , ui:noUserResize ;\n"
        << "\tlv2:extensionData ui:idleInterface .\n";
    return out.str();
}

// The one preset keeps its URI; it now holds the default values themselves.
std::string presetsTtl (const std::string& uri)
{
    std::ostringstream out;
    out << prefixes
        << "<" << uri << ":preset1>\n"
        << "\ta pset:Preset ;\n"
        << "\tlv2:appliesTo <" << uri << "> ;\n"
        << "\trdfs:label \"Default\" ;\n"
        << "\tlv2:port [\n";

    for (std::size_t i = 0; i < ParameterTable::numParameters; ++i)
    {
        const auto& entry = ParameterTable::entry (i);
        out << "\t\tlv2:symbol \"" << entry.id << "\" ;\n"
            << "\t\tpset:value " << number (entry.defaultValue) << "\n"
            << (i + 1 < ParameterTable::numParameters ? "\t] , [\n" : "\t] .\n");
    }

    return out.str();
}

std::string manifestTtl (const std::string& uri, const std::string& binary)
{
    std::ostringstream out;
    out << prefixes
        << "<" << uri << ">\n"
        << "\ta lv2:Plugin ;\n"
        << "\tlv2:binary <" << binary << "> ;\n"
        << "\trdfs:seeAlso <dsp.ttl> .\n\n"
        << "<" << uri << Lv2Ports::uiSuffix << ">\n"
        << "\ta ui:X11UI ;\n"
        << "\tlv2:binary <" << binary << "> ;\n"
        << "\trdfs:seeAlso <ui.ttl> .\n\n"
        << "<" << uri << ":preset1>\n"
        << "\ta pset:Preset ;\n"
        << "\tlv2:appliesTo <" << uri << "> ;\n"
        << "\trdfs:seeAlso <presets.ttl> .\n";
    return out.str();
}

bool write (const std::string& path, const std::string& text)
{
    std::ofstream file (path, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();

    if (! file)
        std::cerr << "quenda-lv2-ttl: cannot write " << path << "\n";

    return static_cast<bool> (file);
}
}

int main (int argc, char** argv)
{
    if (argc != 4)
    {
        std::cerr << "usage: quenda-lv2-ttl BUNDLE_DIR PLUGIN_URI BINARY_NAME\n";
        return 2;
    }

    const std::string bundle = argv[1], uri = argv[2], binary = argv[3];

    const bool ok = write (bundle + "/manifest.ttl", manifestTtl (uri, binary))
                    && write (bundle + "/dsp.ttl", pluginTtl (uri, binary))
                    && write (bundle + "/ui.ttl", uiTtl (uri))
                    && write (bundle + "/presets.ttl", presetsTtl (uri));
    return ok ? 0 : 1;
}
