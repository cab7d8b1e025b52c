// SPDX-License-Identifier: GPL-3.0-or-later
#include "AudioWriter.h"
#include "CliError.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <sys/resource.h>

namespace cli
{
/** A write the system cut short sets no error code; the size limit is the usual cause. */
static juce::String explainShortWrite (juce::int64 sizeWanted)
{
    struct rlimit limit
    {
    };

    if (::getrlimit (RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY
        && sizeWanted >= (juce::int64) limit.rlim_cur)
        return "File too large: the file size limit (ulimit -f) is " + juce::String ((juce::int64) limit.rlim_cur) + " bytes";

    return "the system took only part of the data (disk full?)";
}

/** The file stream a format writer owns and deletes when it finishes. Keeps the first write
    error and how far the file should reach, so a failure while the writer completes the file
    (its header, FLAC's last frames) or a write the system cut short is not lost. */
struct WriteOutcome
{
    juce::String error;
    juce::int64 expectedSize = 0;
};

class CheckedOutputStream : public juce::OutputStream
{
public:
    CheckedOutputStream (std::unique_ptr<juce::FileOutputStream> target, std::shared_ptr<WriteOutcome> outcomeToFill)
        : stream (std::move (target)), outcome (std::move (outcomeToFill)) {}

    ~CheckedOutputStream() override { flush(); }

    void flush() override
    {
        stream->flush();
        note (true);
    }

    bool setPosition (juce::int64 position) override { return note (stream->setPosition (position)); }
    juce::int64 getPosition() override { return stream->getPosition(); }

    bool write (const void* data, size_t numBytes) override
    {
        const auto ok = note (stream->write (data, numBytes));
        outcome->expectedSize = std::max (outcome->expectedSize, stream->getPosition());
        return ok;
    }

private:
    bool note (bool ok)
    {
        if (outcome->error.isEmpty())
        {
            if (stream->getStatus().failed())
                outcome->error = stream->getStatus().getErrorMessage();
            else if (! ok)
                outcome->error = explainShortWrite (outcome->expectedSize);
        }

        return ok;
    }

    std::unique_ptr<juce::FileOutputStream> stream;
    std::shared_ptr<WriteOutcome> outcome;
};

//==============================================================================
OutputFormat chooseOutputFormat (const juce::File& output, int requestedBitDepth, int inputBits, bool inputIsFloat)
{
    OutputFormat result;
    const auto extension = output.getFileExtension().toLowerCase();

    if (extension == ".wav" || extension == ".wave")
        result.format = std::make_unique<juce::WavAudioFormat>();
    else if (extension == ".aif" || extension == ".aiff" || extension == ".aifc")
        result.format = std::make_unique<juce::AiffAudioFormat>();
    else if (extension == ".flac")
        result.format = std::make_unique<juce::FlacAudioFormat>();
    else
        throw CliError (ExitCode::badFormat, quoted (output) + ": unsupported output format '" + extension
                                                 + "' (use .wav, .aiff or .flac)");

    const auto canFloat = result.format->getPossibleBitDepths().contains (32);

    if (requestedBitDepth == 32 && ! canFloat)
        throw CliError (ExitCode::badUsage, "--bit-depth 32 (float) needs a WAV output; "
                                                + result.format->getFormatName() + " takes 16 or 24");

    if (requestedBitDepth != 0)
        result.bitDepth = requestedBitDepth;
    else if (inputIsFloat || inputBits > 24)
        result.bitDepth = canFloat ? 32 : 24;
    else
        result.bitDepth = inputBits <= 16 ? 16 : 24;

    return result;
}

//==============================================================================
namespace
{
    // Samples converted per call to the format writer: bounds the buffers for any block size.
    constexpr int conversionChunk = 4096;

    constexpr float ditherScale = 32768.0f;
    constexpr float stepTolerance = 1.0f / 65536.0f;   // of a step: about -186 dBFS

    /** A 16-bit level of each of four samples: TPDF dither of +-1 step from two draws (times
        ditherGain: 1 or 0), half a step, then floored, within the format's range. A sample
        already on a step gets no dither, so audio the processing left alone comes out as it
        went in. NaN gives 0. Lanes limited to the range count -1 in clips. */
    DitherNoise::Ints ditheredLevels (DitherNoise::Floats samples, DitherNoise::Words first, DitherNoise::Words second,
                                      float ditherGain, DitherNoise::Ints& clips) noexcept
    {
        using Ints = DitherNoise::Ints;
        using Floats = DitherNoise::Floats;

        auto scaled = samples * ditherScale;
        scaled = scaled == scaled ? scaled : Floats {};
        const auto bounded = scaled < -2.0f * ditherScale ? Floats {} - 2.0f * ditherScale
                                                          : (scaled > 2.0f * ditherScale ? Floats {} + 2.0f * ditherScale : scaled);
        const auto roundedUp = bounded + 0.5f;
        const auto truncatedUp = __builtin_convertvector(roundedUp, Ints);
        const auto nearest = __builtin_convertvector(truncatedUp + (roundedUp < __builtin_convertvector(truncatedUp, Floats)), Floats);

        // The processor's guards against denormals leave traces far below a step on silence.
        const auto distance = bounded - nearest;
        const auto onStep = (distance <= stepTolerance) & (distance >= -stepTolerance);

        // 24 bits of each draw: their difference converts exactly.
        auto dither = __builtin_convertvector((Ints) (first >> 8) - (Ints) (second >> 8), Floats) * (ditherGain / 16777216.0f);
        dither = onStep ? Floats {} : dither;
        auto exact = (onStep ? nearest : bounded) + dither + 0.5f;
        clips += (exact < -ditherScale) | (exact >= ditherScale);
        exact = exact < -ditherScale ? Floats {} - ditherScale : exact;
        const auto limited = exact > ditherScale - 1.0f ? Floats {} + (ditherScale - 1.0f) : exact;
        const auto truncated = __builtin_convertvector(limited, Ints);
        return truncated + (limited < __builtin_convertvector(truncated, Floats));   // true is -1
    }
}

DitherNoise::DitherNoise (std::uint64_t seed) noexcept
{
    // splitmix64 spreads the seed over the four generators' states; none may be all zero.
    auto nextWord = [&seed]
    {
        seed += 0x9e3779b97f4a7c15ULL;
        auto mixed = seed;
        mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9ULL;
        mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111ebULL;
        return (std::uint32_t) ((mixed ^ (mixed >> 31)) >> 32);
    };

    for (int lane = 0; lane < lanes; ++lane)
    {
        x[lane] = nextWord() | 1u;
        y[lane] = nextWord();
        z[lane] = nextWord();
        w[lane] = nextWord();
    }
}

AudioFileWriter::AudioFileWriter (const PendingFile& target, const OutputFormat& format, double sampleRate, int numChannels)
    : file (target.temporary()), destination (target.destination()), bitDepth (format.bitDepth),
      ditherGain (format.dither ? 1.0f : 0.0f), outcome (std::make_shared<WriteOutcome>())
{
    auto fileStream = std::make_unique<juce::FileOutputStream> (file);

    if (fileStream->failedToOpen() || ! fileStream->setPosition (0) || ! fileStream->truncate().wasOk())
        throw CliError (ExitCode::outputUnwritable, "cannot write " + quoted (destination) + ": " + fileStream->getStatus().getErrorMessage());

    auto stream = std::make_unique<CheckedOutputStream> (std::move (fileStream), outcome);

    // FLAC's quality option 5 is libFLAC's default compression level.
    const auto quality = format.format->getQualityOptions().size() > 5 ? 5 : 0;
    writer.reset (format.format->createWriterFor (stream.get(), sampleRate, (unsigned int) numChannels,
                                                  bitDepth, {}, quality));

    if (writer == nullptr)
        throw CliError (ExitCode::badFormat, "cannot write " + juce::String (bitDepth) + "-bit "
                                                 + format.format->getFormatName() + " at " + juce::String (sampleRate) + " Hz");

    stream.release();
    integerSamples.resize ((size_t) numChannels * conversionChunk);
    channelData.resize ((size_t) numChannels + 1, nullptr);

    // A fixed seed per channel: the same samples always get the same dither.
    for (int channel = 0; channel < numChannels; ++channel)
        dither.emplace_back ((std::uint64_t) 0x5175656e00000000 + (std::uint64_t) (unsigned) channel);

    ditherDraws.resize ((size_t) numChannels);
}

AudioFileWriter::~AudioFileWriter() = default;

void AudioFileWriter::write (const juce::AudioBuffer<float>& block, int start, int numSamples)
{
    const auto numChannels = block.getNumChannels();
    jassert (numChannels == (int) writer->getNumChannels());

    // On the bit patterns of the magnitudes, which order as their values do: integer
    // comparisons vectorise where float ones (NaN) do not. NaN counts for neither.
    constexpr std::int32_t infinity = 0x7f800000, fullScale = 0x3f800000;
    std::int32_t largest;
    std::memcpy (&largest, &peakLevel, sizeof (largest));

    for (int channel = 0; channel < numChannels; ++channel)
    {
        const auto* source = block.getReadPointer (channel, start);
        std::int32_t beyondFullScale = 0;

        for (int i = 0; i < numSamples; ++i)
        {
            std::int32_t bits;
            std::memcpy (&bits, source + i, sizeof (bits));
            const auto magnitude = bits & 0x7fffffff;
            const auto number = magnitude > infinity ? 0 : magnitude;
            largest = std::max (largest, number);
            beyondFullScale += (std::int32_t) (number > fullScale);
        }

        overFullScale += beyondFullScale;
    }

    std::memcpy (&peakLevel, &largest, sizeof (peakLevel));

    for (int done = 0; done < numSamples; done += conversionChunk)
    {
        const auto count = std::min (conversionChunk, numSamples - done);
        convert (block, start + done, count);

        if (! writer->write (channelData.data(), count) || outcome->error.isNotEmpty())
            throw CliError (ExitCode::outputUnwritable, "writing " + quoted (destination) + " failed: "
                                                            + (outcome->error.isNotEmpty() ? outcome->error : juce::String ("disk full?")));
    }
}

void AudioFileWriter::convert (const juce::AudioBuffer<float>& block, int start, int numSamples)
{
    const auto numChannels = block.getNumChannels();

    if (bitDepth == 32)
    {
        // Float writers take the samples' bits as they are.
        for (int channel = 0; channel < numChannels; ++channel)
            channelData[(size_t) channel] = reinterpret_cast<const int*> (block.getReadPointer (channel, start));

        return;
    }

    for (int channel = 0; channel < numChannels; ++channel)
        channelData[(size_t) channel] = integerSamples.data() + (size_t) channel * conversionChunk;

    if (bitDepth == 16)
    {
        // Sample n of a channel always takes lane n % 4 of its generator's (n / 4)th pair of
        // draws, however the writes are cut, so the seed alone fixes the result. A group of four
        // cut by the end of a write keeps its draws for the next one.
        auto convertPart = [&] (int done, int count)
        {
            for (int channel = 0; channel < numChannels; ++channel)
            {
                const auto* source = block.getReadPointer (channel, start + done);
                auto* target = integerSamples.data() + (size_t) channel * conversionChunk + done;
                const auto& draws = ditherDraws[(size_t) channel];
                DitherNoise::Floats samples {};

                for (int i = 0; i < count; ++i)
                    samples[ditherPhase + i] = source[i];

                DitherNoise::Ints clips {};
                const auto levels = ditheredLevels (samples, draws.first, draws.second, ditherGain, clips) * 65536;

                for (int i = 0; i < count; ++i)
                    clipped16 -= clips[ditherPhase + i];

                for (int i = 0; i < count; ++i)
                    target[i] = levels[ditherPhase + i];
            }

            ditherPhase = (ditherPhase + count) % DitherNoise::lanes;
        };

        int done = 0;

        if (ditherPhase != 0)
        {
            done = std::min (DitherNoise::lanes - ditherPhase, numSamples);
            convertPart (0, done);
        }

        for (int channel = 0; channel < numChannels; ++channel)
        {
            const auto* source = block.getReadPointer (channel, start);
            auto* target = integerSamples.data() + (size_t) channel * conversionChunk;
            auto& noise = dither[(size_t) channel];

            DitherNoise::Ints clips {};

            for (int i = done; i + DitherNoise::lanes <= numSamples; i += DitherNoise::lanes)
            {
                DitherNoise::Floats samples;
                std::memcpy (&samples, source + i, sizeof (samples));
                const auto first = noise.next();
                const auto levels = ditheredLevels (samples, first, noise.next(), ditherGain, clips) * 65536;
                std::memcpy (target + i, &levels, sizeof (levels));
            }

            clipped16 -= (juce::int64) clips[0] + clips[1] + clips[2] + clips[3];
        }

        done += (numSamples - done) / DitherNoise::lanes * DitherNoise::lanes;

        if (done < numSamples)
        {
            for (int channel = 0; channel < numChannels; ++channel)
            {
                auto& draws = ditherDraws[(size_t) channel];
                draws.first = dither[(size_t) channel].next();
                draws.second = dither[(size_t) channel].next();
            }

            convertPart (done, numSamples - done);
        }

        return;
    }

    // Full scale is INT_MAX, rounded to nearest: the conversion JUCE's float writing uses.
    for (int channel = 0; channel < numChannels; ++channel)
    {
        const auto* source = block.getReadPointer (channel, start);
        auto* target = integerSamples.data() + (size_t) channel * conversionChunk;

        for (int i = 0; i < numSamples; ++i)
        {
            const auto sample = (double) source[i];
            target[i] = sample <= -1.0  ? std::numeric_limits<int>::min()
                        : sample >= 1.0 ? std::numeric_limits<int>::max()
                                        : juce::roundToInt ((double) std::numeric_limits<int>::max() * sample);
        }
    }
}

void AudioFileWriter::close()
{
    // The writer completes the file as it is deleted; its stream reports what went wrong.
    writer.reset();

    if (outcome->error.isEmpty() && ! file.existsAsFile())
        outcome->error = "its temporary file " + quoted (file) + " was removed during the render (folder deleted?)";

    if (outcome->error.isEmpty() && file.getSize() < outcome->expectedSize)
        outcome->error = explainShortWrite (outcome->expectedSize);

    if (outcome->error.isNotEmpty())
        throw CliError (ExitCode::outputUnwritable, "writing " + quoted (destination) + " failed: " + outcome->error);
}
}
