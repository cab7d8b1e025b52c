// SPDX-License-Identifier: GPL-3.0-or-later
#include "WavReader.h"

#include <cstdint>
#include <cstring>

namespace cli
{
namespace
{
    class PlainWavReader : public juce::AudioFormatReader
    {
    public:
        PlainWavReader (juce::InputStream* stream, const WavLayout& wav)
            : juce::AudioFormatReader (stream, "WAV file"), layout (wav)
        {
            sampleRate = layout.sampleRate;
            numChannels = (unsigned int) layout.channels;
            bitsPerSample = (unsigned int) layout.bitsPerSample;
            usesFloatingPointData = layout.isFloat;
            lengthInSamples = layout.dataSize / layout.blockAlign;
        }

        bool readSamples (int* const* destination, int numDestChannels, int offset,
                          juce::int64 startSample, int numSamples) override
        {
            clearSamplesBeyondAvailableLength (destination, numDestChannels, offset, startSample, numSamples, lengthInSamples);

            if (numSamples <= 0)
                return true;

            input->setPosition (layout.dataStart + startSample * layout.blockAlign);
            const auto framesPerRead = (int) sizeof (buffer) / layout.blockAlign;

            while (numSamples > 0)
            {
                const auto frames = std::min (framesPerRead, numSamples);
                const auto wanted = frames * layout.blockAlign;
                const auto got = std::max (0, input->read (buffer, wanted));
                std::memset (buffer + got, 0, (size_t) (wanted - got));
                convert (destination, numDestChannels, offset, frames);
                offset += frames;
                numSamples -= frames;
            }

            return true;
        }

    private:
        void convert (int* const* destination, int numDestChannels, int offset, int frames)
        {
            using namespace juce;
            const auto channels = (int) numChannels;

            switch (layout.bitsPerSample * (layout.isFloat ? -1 : 1))
            {
                case 8: ReadHelper<AudioData::Int32, AudioData::UInt8, AudioData::LittleEndian>::read (destination, offset, numDestChannels, buffer, channels, frames); break;
                case 16: ReadHelper<AudioData::Int32, AudioData::Int16, AudioData::LittleEndian>::read (destination, offset, numDestChannels, buffer, channels, frames); break;
                case 24: ReadHelper<AudioData::Int32, AudioData::Int24, AudioData::LittleEndian>::read (destination, offset, numDestChannels, buffer, channels, frames); break;
                case 32: ReadHelper<AudioData::Int32, AudioData::Int32, AudioData::LittleEndian>::read (destination, offset, numDestChannels, buffer, channels, frames); break;
                case -32: ReadHelper<AudioData::Float32, AudioData::Float32, AudioData::LittleEndian>::read (destination, offset, numDestChannels, buffer, channels, frames); break;
                case -64:
                    // Float destinations hold the float's bits; JUCE has no 64-bit sample type.
                    for (int channel = 0; channel < numDestChannels; ++channel)
                    {
                        if (destination[channel] == nullptr)
                            continue;

                        auto* target = reinterpret_cast<float*> (destination[channel] + offset);

                        for (int i = 0; i < frames; ++i)
                        {
                            double value = 0.0;

                            if (channel < channels)
                            {
                                std::uint64_t bits;
                                std::memcpy (&bits, buffer + (size_t) (i * layout.blockAlign + channel * 8), sizeof (bits));
                                bits = ByteOrder::swapIfBigEndian (bits);
                                std::memcpy (&value, &bits, sizeof (value));
                            }

                            target[i] = (float) value;
                        }
                    }
                    break;
                default: jassertfalse; break;
            }
        }

        const WavLayout layout;
        char buffer[3 * 8 * 1024];   // whole frames of every supported size
    };
}

juce::AudioFormatReader* createPlainWavReader (juce::InputStream* stream, const WavLayout& layout)
{
    const auto bits = layout.bitsPerSample;
    const auto readable = layout.hasFormat && layout.dataStart >= 0 && layout.channels > 0 && layout.channels <= 8
                          && layout.sampleRate > 0.0
                          && (layout.isFloat ? (bits == 32 || bits == 64) : (bits == 8 || bits == 16 || bits == 24 || bits == 32))
                          && layout.blockAlign == layout.channels * bits / 8;

    return readable ? new PlainWavReader (stream, layout) : nullptr;
}
}
