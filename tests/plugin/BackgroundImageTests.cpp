// SPDX-License-Identifier: GPL-3.0-or-later
// The committed background picture: its PNG layout, its colour profile, and that the
// editor shows its top-left corner pixel for pixel.

#include "editor/PluginEditor.h"
#include "processor/PluginProcessor.h"

#include <gtest/gtest.h>

#include <map>

namespace
{
    uint32_t be32 (const juce::MemoryBlock& block, size_t offset)
    {
        auto* b = static_cast<const uint8_t*> (block.getData()) + offset;
        return (uint32_t (b[0]) << 24) | (uint32_t (b[1]) << 16) | (uint32_t (b[2]) << 8) | b[3];
    }

    uint32_t crc32 (const uint8_t* data, size_t size)
    {
        uint32_t crc = 0xffffffffu;
        for (size_t i = 0; i < size; ++i)
        {
            crc ^= data[i];
            for (int bit = 0; bit < 8; ++bit)
                crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1u)));
        }
        return ~crc;
    }

    juce::MemoryBlock inflate (const juce::MemoryBlock& block, size_t offset)
    {
        juce::MemoryInputStream in (static_cast<const char*> (block.getData()) + offset, block.getSize() - offset, false);
        juce::GZIPDecompressorInputStream stream (&in, false, juce::GZIPDecompressorInputStream::zlibFormat);
        juce::MemoryBlock out;
        stream.readIntoMemoryBlock (out);
        return out;
    }

    struct Picture
    {
        Picture()
        {
            juce::File (QUENDA_BACKGROUND_PNG).loadFileAsData (bytes);
            auto* data = static_cast<const uint8_t*> (bytes.getData());

            for (size_t pos = 8; pos + 12 <= bytes.getSize();)
            {
                const auto length = be32 (bytes, pos);
                if (pos + 12 + length > bytes.getSize())
                    break;

                const juce::String type (reinterpret_cast<const char*> (data + pos + 4), 4);
                order.add (type);
                chunks[type] = juce::MemoryBlock (data + pos + 8, length);
                EXPECT_EQ (crc32 (data + pos + 4, 4 + length), be32 (bytes, pos + 8 + length)) << type;
                pos += 12 + length;
            }
        }

        juce::MemoryBlock bytes;
        juce::StringArray order;
        std::map<juce::String, juce::MemoryBlock> chunks;
    };
}

TEST (BackgroundPicture, RgbPngWithMetadataChunksBeforeOneImageChunk)
{
    Picture png;
    ASSERT_GT (png.bytes.getSize(), 8u) << QUENDA_BACKGROUND_PNG;
    EXPECT_EQ (0, memcmp (png.bytes.getData(), "\x89PNG\r\n\x1a\n", 8));
    ASSERT_EQ (juce::String ("IHDR pHYs iCCP gAMA cHRM IDAT IEND"), png.order.joinIntoString (" "));

    const auto& ihdr = png.chunks["IHDR"];
    EXPECT_EQ (707u, be32 (ihdr, 0));
    EXPECT_EQ (196u, be32 (ihdr, 4));
    EXPECT_EQ (8, ihdr[8]);   // bits per sample
    EXPECT_EQ (2, ihdr[9]);   // RGB, no alpha
    EXPECT_EQ (0, ihdr[12]);  // not interlaced

    EXPECT_EQ (23622u, be32 (png.chunks["pHYs"], 0));
    EXPECT_EQ (23622u, be32 (png.chunks["pHYs"], 4));
    EXPECT_EQ (1, png.chunks["pHYs"][8]);  // per metre
    EXPECT_EQ (45454u, be32 (png.chunks["gAMA"], 0));
    EXPECT_EQ (32u, png.chunks["cHRM"].getSize());

    // Every row: a filter byte and 707 RGB triples.
    EXPECT_EQ (196u * (1u + 707u * 3u), inflate (png.chunks["IDAT"], 0).getSize());
}

TEST (BackgroundPicture, EmbedsAWellFormedRgbDisplayProfile)
{
    Picture png;
    const auto& iccp = png.chunks["iCCP"];
    const auto nameLength = strnlen (static_cast<const char*> (iccp.getData()), iccp.getSize());
    ASSERT_TRUE (nameLength >= 1 && nameLength <= 79);
    ASSERT_EQ (0, iccp[nameLength + 1]);  // compression method

    const auto profile = inflate (iccp, nameLength + 2);
    ASSERT_GE (profile.getSize(), 132u);
    EXPECT_EQ (profile.getSize(), be32 (profile, 0));
    EXPECT_EQ (juce::String ("mntrRGB XYZ "), juce::String (static_cast<const char*> (profile.getData()) + 12, 12));
    EXPECT_EQ (juce::String ("acsp"), juce::String (static_cast<const char*> (profile.getData()) + 36, 4));

    juce::StringArray tags;
    for (uint32_t i = 0; i < be32 (profile, 128) && 144 + 12 * i <= profile.getSize(); ++i)
    {
        const auto entry = 132 + 12 * i;
        tags.add (juce::String (static_cast<const char*> (profile.getData()) + entry, 4));
        EXPECT_EQ (0u, be32 (profile, entry + 4) % 4) << tags[(int) i];
        EXPECT_LE (be32 (profile, entry + 4) + be32 (profile, entry + 8), profile.getSize()) << tags[(int) i];
    }
    tags.sort (false);
    EXPECT_EQ (juce::String ("bTRC bXYZ cprt desc gTRC gXYZ rTRC rXYZ wtpt"), tags.joinIntoString (" "));
}

TEST (BackgroundPicture, EditorShowsTheTopLeftCornerAtOneToOne)
{
    Picture png;
    const auto picture = juce::ImageFileFormat::loadFrom (png.bytes.getData(), png.bytes.getSize());
    ASSERT_EQ (juce::Rectangle<int> (707, 196), picture.getBounds());

    QuendaAudioProcessor processor;
    QuendaAudioProcessorEditor editor (processor);

    // The editor's own painting, without the controls drawn over it.
    juce::Image painted (juce::Image::RGB, editor.getWidth(), editor.getHeight(), true);
    {
        juce::Graphics g (painted);
        editor.paint (g);
    }

    int mismatches = 0;
    for (int y = 0; y < painted.getHeight(); ++y)
        for (int x = 0; x < painted.getWidth(); ++x)
            mismatches += painted.getPixelAt (x, y) != picture.getPixelAt (x, y) ? 1 : 0;

    EXPECT_EQ (0, mismatches);
}
