// SPDX-License-Identifier: GPL-3.0-or-later
#include "StateBlock.h"

#include <charconv>
#include <cstring>
#include <limits>

namespace StateBlock
{

namespace
{
    juce::String attributeName (size_t index)
    {
        const auto id = ParameterTable::entry (index).id;
        return juce::String (id.data(), id.size());
    }

    /** JUCE's number reader overflows an int on an exponent of ten digits or more. From six
        digits on, a nonzero value is far outside the float range: infinite or zero. */
    double readNumber (const juce::String& text)
    {
        auto t = text.getCharPointer();
        t.incrementToEndOfWhitespace();
        const auto negative = *t == '-';

        if (*t == '+' || *t == '-')
            ++t;

        bool hasDigits = false, isNonZero = false;

        for (bool pointSeen = false; t.isDigit() || (*t == '.' && ! pointSeen); ++t)
        {
            pointSeen = pointSeen || *t == '.';
            hasDigits = hasDigits || t.isDigit();
            isNonZero = isNonZero || (t.isDigit() && *t != '0');
        }

        if (hasDigits && (*t == 'e' || *t == 'E'))
        {
            ++t;
            const auto negativeExponent = *t == '-';

            if (*t == '+' || *t == '-')
                ++t;

            while (*t == '0')
                ++t;

            int exponentDigits = 0;

            for (; t.isDigit(); ++t)
                ++exponentDigits;

            if (exponentDigits >= 6)
            {
                const auto magnitude = isNonZero && ! negativeExponent ? std::numeric_limits<double>::infinity() : 0.0;
                return negative ? -magnitude : magnitude;
            }
        }

        // JUCE's reader drops the sign of a zero; a saved -0 must come back as -0.
        const auto value = text.getDoubleValue();
        return value == 0.0 && negative ? -0.0 : value;
    }
}

juce::String formatDouble (double value)
{
    char text[64] {};
    const auto result = std::to_chars (text, text + sizeof (text) - 1, value, std::chars_format::general, 20);
    *result.ptr = 0;
    return juce::String (text);
}

juce::MemoryBlock write (const Values& values)
{
    juce::String xml ("<Params");

    for (size_t i = 0; i < numValues; ++i)
    {
        const auto& parameter = ParameterTable::entry (i);
        const auto text = parameter.isSwitch ? juce::String (parameter.isOn (values[i]) ? "1" : "0")
                                             : formatDouble ((double) values[i]);
        xml << ' ' << attributeName (i) << "=\"" << text << '"';
    }

    xml << "/>";

    const auto utf8 = xml.toUTF8();
    const auto textLength = (juce::uint32) utf8.sizeInBytes() - 1;

    juce::MemoryBlock block;
    juce::MemoryOutputStream out (block, false);
    out.writeInt ((int) magic);
    out.writeInt ((int) textLength);
    out.write (utf8.getAddress(), textLength);
    out.writeByte (0);
    out.flush();
    return block;
}

std::optional<Restored> read (const void* data, int sizeInBytes)
{
    if (data == nullptr || sizeInBytes <= 8)
        return {};

    const auto* bytes = static_cast<const juce::uint8*> (data);

    if (juce::ByteOrder::littleEndianInt (bytes) != magic)
        return {};

    const auto storedLength = (juce::int32) juce::ByteOrder::littleEndianInt (bytes + 4);

    if (storedLength <= 0)
        return {};

    // The text ends at its first NUL.
    const auto* utf8 = reinterpret_cast<const char*> (bytes + 8);
    const auto textLength = (int) ::strnlen (utf8, (size_t) juce::jmin (sizeInBytes - 8, (int) storedLength));

    // We only ever write valid UTF-8; JUCE's XML parser reads past the end of malformed text.
    if (! juce::CharPointer_UTF8::isValidString (utf8, textLength))
        return {};

    // After a cut "&#x" escape JUCE's parser steps one character past the end: spare NULs
    // keep it inside the text. Only the outer element's attributes carry values; JUCE's
    // reader of element content loops forever on some damaged text, so it is never asked to.
    std::string padded (utf8, (size_t) textLength);
    padded.append (4, '\0');
    const auto text = juce::String::fromUTF8 (padded.data(), (int) padded.size());
    const auto element = juce::XmlDocument (text).getDocumentElement (true);

    if (element == nullptr || ! element->getTagName().equalsIgnoreCase ("Params"))
        return {};

    Restored restored;

    for (size_t i = 0; i < numValues; ++i)
    {
        const auto name = attributeName (i);

        if (! element->hasAttribute (name))
            continue;

        if (ParameterTable::entry (i).isSwitch)
            restored[i] = element->getBoolAttribute (name) ? 1.0f : 0.0f;
        else
            restored[i] = (float) readNumber (element->getStringAttribute (name));
    }

    return restored;
}

}
