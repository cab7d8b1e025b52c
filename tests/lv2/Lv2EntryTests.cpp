// SPDX-License-Identifier: GPL-3.0-or-later
// The built Quenda.lv2 through the LV2 C interface, as a host calls it: the options hosts
// pass, the control ports and the state interface.

#include "plugin/ParameterTable.h"
#include "plugin/StateBlock.h"
#include "plugin/lv2/Lv2Ports.h"

#include <lv2/atom/atom.h>
#include <lv2/buf-size/buf-size.h>
#include <lv2/core/lv2.h>
#include <lv2/options/options.h>
#include <lv2/instance-access/instance-access.h>
#include <lv2/state/state.h>
#include <lv2/ui/ui.h>
#include <lv2/urid/urid.h>

#include <gtest/gtest.h>
#include <dlfcn.h>

#include <array>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

// Last: Xlib's macros (None, Bool, Status) would clash with the headers above.
#include <X11/Xlib.h>

namespace
{
constexpr int blockSize = 256;

struct UridMap
{
    std::map<std::string, LV2_URID> ids;
    LV2_URID_Map feature { this, [] (LV2_URID_Map_Handle handle, const char* uri)
                           {
                               auto& known = static_cast<UridMap*> (handle)->ids;
                               return known.emplace (uri, (LV2_URID) known.size() + 1).first->second;
                           } };

    LV2_URID operator() (const char* uri) { return feature.map (feature.handle, uri); }
};

void* library()
{
    static void* const handle = dlopen (QUENDA_LV2_BINARY, RTLD_NOW | RTLD_LOCAL);
    EXPECT_NE (nullptr, handle) << dlerror();
    return handle;
}

const LV2_Descriptor& descriptor()
{
    auto* entry = library() != nullptr ? reinterpret_cast<LV2_Descriptor_Function> (dlsym (library(), "lv2_descriptor")) : nullptr;
    const auto* found = entry != nullptr ? entry (0) : nullptr;

    if (found == nullptr)
        throw std::runtime_error ("no lv2_descriptor in " QUENDA_LV2_BINARY);

    return *found;
}

/** One instance, its ports connected to buffers of its own. */
struct Plugin
{
    // Hosts differ in the size of maxBlockLength's Int: 0 leaves the option out.
    explicit Plugin (size_t maxBlockLengthSize = sizeof (std::int32_t))
    {
        const std::int32_t int32 = blockSize;
        const std::int64_t int64 = blockSize;
        options.push_back ({ LV2_OPTIONS_INSTANCE, 0, map (LV2_BUF_SIZE__maxBlockLength), (uint32_t) maxBlockLengthSize,
                             map (LV2_ATOM__Int), maxBlockLengthSize == sizeof (int64) ? (const void*) &int64 : &int32 });
        if (maxBlockLengthSize == 0)
            options.pop_back();
        options.push_back ({ LV2_OPTIONS_INSTANCE, 0, 0, 0, 0, nullptr });

        const LV2_Feature mapFeature { LV2_URID__map, &map.feature };
        const LV2_Feature optionsFeature { LV2_OPTIONS__options, options.data() };
        const LV2_Feature* features[] = { &mapFeature, &optionsFeature, nullptr };
        handle = descriptor().instantiate (&descriptor(), 48000.0, QUENDA_LV2_BUNDLE, features);

        if (handle == nullptr)
            return;

        for (auto i = 0u; i < 4; ++i)
            descriptor().connect_port (handle, Lv2Ports::inputLeft + i, audio[i].data());
        for (size_t i = 0; i < ParameterTable::numParameters; ++i)
        {
            controls[i] = ParameterTable::entry (i).defaultValue;
            descriptor().connect_port (handle, Lv2Ports::parameterPort (i), &controls[i]);
        }
        descriptor().connect_port (handle, Lv2Ports::latency, &latency);
        descriptor().connect_port (handle, Lv2Ports::enabled, &enabled);
        descriptor().activate (handle);
    }

    ~Plugin()
    {
        if (handle != nullptr)
        {
            descriptor().deactivate (handle);
            descriptor().cleanup (handle);
        }
    }

    void run()
    {
        for (auto& buffer : audio)
            std::fill (buffer.begin(), buffer.end(), 0.0f);
        descriptor().run (handle, blockSize);
    }

    const LV2_State_Interface& state() const
    {
        return *static_cast<const LV2_State_Interface*> (descriptor().extension_data (LV2_STATE__interface));
    }

    /** The eight values of the state block the plug-in saves. */
    StateBlock::Values saved()
    {
        std::map<LV2_URID, std::string> stored;
        state().save (
            handle, [] (LV2_State_Handle h, uint32_t key, const void* value, size_t size, uint32_t, uint32_t)
            {
                (*static_cast<std::map<LV2_URID, std::string>*> (h))[key] = std::string (static_cast<const char*> (value), size);
                return (LV2_State_Status) LV2_STATE_SUCCESS; },
            &stored, 0, nullptr);

        juce::MemoryBlock block;
        block.fromBase64Encoding (juce::String (stored[map (stateKey().c_str())].c_str()));
        const auto restored = StateBlock::read (block.getData(), (int) block.getSize());
        StateBlock::Values values {};
        values.fill (NAN);
        for (size_t i = 0; restored && i < values.size(); ++i)
            values[i] = (*restored)[i].value_or (NAN);
        return values;
    }

    void restore (const StateBlock::Values& values)
    {
        struct Source
        {
            std::string text;
            LV2_URID key, type;
        } source {
            StateBlock::write (values).toBase64Encoding().toStdString(), map (stateKey().c_str()), map (LV2_ATOM__String)
        };

        EXPECT_EQ (LV2_STATE_SUCCESS, state().restore (
                                          handle, [] (LV2_State_Handle h, uint32_t key, size_t* size, uint32_t* type, uint32_t* flags) -> const void*
                                          {
                auto& s = *static_cast<Source*> (h);
                if (key != s.key)
                    return nullptr;
                *size = s.text.size() + 1;
                *type = s.type;
                *flags = LV2_STATE_IS_POD;
                return s.text.c_str(); },
                                          &source, 0, nullptr));
    }

    static std::string stateKey() { return std::string (QUENDA_LV2_URI) + Lv2Ports::stateKeySuffix; }

    UridMap map;
    std::vector<LV2_Options_Option> options;
    LV2_Handle handle = nullptr;
    std::array<std::array<float, blockSize>, 4> audio {};
    std::array<float, ParameterTable::numParameters> controls {};
    float latency = -1.0f, enabled = 1.0f;
};

// No value is a default, lin_phase is on.
const StateBlock::Values someValues { -0.37f, 0.0f, 1.0f, 1.25f, -2.5f, 1.75f, 97.5f, 7200.0f };
const StateBlock::Values otherValues { 0.5f, 1.0f, 0.0f, -3.0f, 4.0f, -1.0f, 200.0f, 10000.0f };
}

TEST (Lv2Entry, StartsWhateverSizeTheHostGivesMaxBlockLength)
{
    for (size_t size : { sizeof (std::int64_t), sizeof (std::int32_t), size_t (0) })
    {
        SCOPED_TRACE (size);
        Plugin plugin (size);
        ASSERT_NE (nullptr, plugin.handle);
        plugin.run();
        EXPECT_EQ (0.0f, plugin.latency);
    }
}

TEST (Lv2Entry, PlainPortValuesAndRestoredStatesAreWhatThePluginUses)
{
    Plugin plugin;
    ASSERT_NE (nullptr, plugin.handle);

    // The host's plain values reach the processor and its state unchanged.
    plugin.controls = someValues;
    plugin.run();
    EXPECT_EQ (someValues, plugin.saved());
    EXPECT_EQ (3249.0f, plugin.latency);

    // A block restored on its own stands while the host's controls stay where they were...
    plugin.restore (otherValues);
    plugin.run();
    EXPECT_EQ (otherValues, plugin.saved());
    EXPECT_EQ (0.0f, plugin.latency);

    // ...and a control the host moves afterwards wins.
    plugin.controls[ParameterTable::lowFreqIndex] = 55.0f;
    plugin.run();
    auto expected = otherValues;
    expected[ParameterTable::lowFreqIndex] = 55.0f;
    EXPECT_EQ (expected, plugin.saved());
}

TEST (Lv2Entry, ControlsMovedSinceTheLastBlockAreSavedWithTheirNewValues)
{
    Plugin first;
    ASSERT_NE (nullptr, first.handle);
    first.controls = someValues;
    first.run();

    // The host moves controls and saves with no block between (its audio stopped): one control
    // goes back to its default, a switch gets a value that is not exactly 0 or 1.
    auto moved = someValues;
    moved[ParameterTable::lowIndex] = ParameterTable::entry (ParameterTable::lowIndex).defaultValue;
    moved[ParameterTable::bypassIndex] = 0.7f;
    first.controls = moved;
    auto expected = moved;
    expected[ParameterTable::bypassIndex] = 1.0f;
    const auto saved = first.saved();
    EXPECT_EQ (expected, saved);

    // Reloaded as lilv restores: the plug-in's state, then the saved ports. The control that
    // went back to where a new instance starts must not keep its older value.
    Plugin second;
    ASSERT_NE (nullptr, second.handle);
    second.restore (saved);
    second.controls = moved;
    second.run();
    EXPECT_EQ (expected, second.saved());

    first.run();
    EXPECT_EQ (expected, first.saved());
}

TEST (Lv2Ui, TellsTheHostOfEveryValueThePluginSideChanges)
{
    // The editor needs an X display: the test runs under xvfb-run (lv2_ui_xvfb), skips without.
    auto* display = XOpenDisplay (nullptr);
    if (display == nullptr)
        GTEST_SKIP() << "no X display";

    // Hosts handle X errors themselves. With no window manager on the virtual display some
    // window-manager atoms are missing, and JUCE's window code meets that as an error.
    XSetErrorHandler ([] (Display*, XErrorEvent*)
                      { return 0; });

    const auto parent = XCreateSimpleWindow (display, DefaultRootWindow (display), 0, 0, 800, 600, 0, 0, 0);
    XMapWindow (display, parent);
    XSync (display, False);

    Plugin plugin;
    ASSERT_NE (nullptr, plugin.handle);
    plugin.controls = someValues;
    plugin.run();

    auto* entry = reinterpret_cast<LV2UI_DescriptorFunction> (dlsym (library(), "lv2ui_descriptor"));
    ASSERT_NE (nullptr, entry);
    const auto* ui = entry (0);
    ASSERT_NE (nullptr, ui);

    std::map<uint32_t, float> written;
    const LV2_Feature instanceAccess { LV2_INSTANCE_ACCESS_URI, plugin.handle };
    const LV2_Feature parentFeature { LV2_UI__parent, reinterpret_cast<void*> (parent) };
    const LV2_Feature mapFeature { LV2_URID__map, &plugin.map.feature };
    const LV2_Feature* features[] = { &instanceAccess, &parentFeature, &mapFeature, nullptr };
    LV2UI_Widget widget = nullptr;
    auto* handle = ui->instantiate (
        ui, QUENDA_LV2_URI, QUENDA_LV2_BUNDLE,
        [] (LV2UI_Controller controller, uint32_t port, uint32_t size, uint32_t protocol, const void* buffer)
        {
            if (protocol == 0 && size == sizeof (float))
                std::memcpy (&(*static_cast<std::map<uint32_t, float>*> (controller))[port], buffer, sizeof (float));
        },
        &written, &widget, features);
    ASSERT_NE (nullptr, handle);
    EXPECT_NE (nullptr, widget);

    // The host tells the open editor its values, as hosts do.
    for (size_t i = 0; i < ParameterTable::numParameters; ++i)
        ui->port_event (handle, Lv2Ports::parameterPort (i), sizeof (float), 0, &plugin.controls[i]);

    const auto& idle = *static_cast<const LV2UI_Idle_Interface*> (ui->extension_data (LV2_UI__idleInterface));
    idle.idle (handle);
    EXPECT_TRUE (written.empty()) << "the host already has these values";

    // A restore through the plug-in reaches every control the host shows.
    plugin.restore (otherValues);
    idle.idle (handle);

    for (size_t i = 0; i < ParameterTable::numParameters; ++i)
    {
        SCOPED_TRACE (ParameterTable::entry (i).id.data());
        ASSERT_EQ (1u, written.count (Lv2Ports::parameterPort (i)));
        EXPECT_EQ (otherValues[i], written[Lv2Ports::parameterPort (i)]);
    }

    ui->cleanup (handle);
    XDestroyWindow (display, parent);
    XCloseDisplay (display);
}
