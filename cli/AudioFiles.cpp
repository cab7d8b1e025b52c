// SPDX-License-Identifier: GPL-3.0-or-later
#include "AudioFiles.h"
#include "CliError.h"
#include "Interrupt.h"

#include <FLAC/stream_decoder.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quenda::cli
{
/** Notes whether any read came back short. JUCE's WAV and AIFF readers fill a missing
    tail with silence, so a truncated file would otherwise render without complaint. */
class ShortReadWatch : public juce::InputStream
{
public:
    explicit ShortReadWatch (std::unique_ptr<juce::InputStream> source) : stream (std::move (source)) {}

    juce::int64 getTotalLength() override           { return stream->getTotalLength(); }
    bool isExhausted() override                     { return stream->isExhausted(); }
    juce::int64 getPosition() override              { return stream->getPosition(); }
    bool setPosition (juce::int64 position) override { return stream->setPosition (position); }

    int read (void* destination, int maxBytes) override
    {
        const auto start = stream->getPosition();
        const auto got = stream->read (destination, maxBytes);

        if (got < maxBytes)
            shortRead = true;

        // The readers see these chunks as JUNK and skip them.
        for (const auto id : hiddenChunkIds)
            for (juce::int64 i = std::max (id, start); i < std::min (id + 4, start + got); ++i)
                static_cast<char*> (destination)[i - start] = "JUNK"[i - id];

        return got;
    }

    bool shortRead = false;
    std::vector<juce::int64> hiddenChunkIds;

private:
    std::unique_ptr<juce::InputStream> stream;
};

/** A write the system cut short sets no error code; the size limit is the usual cause. */
static juce::String explainShortWrite (juce::int64 sizeWanted)
{
    struct rlimit limit {};

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

    ~CheckedOutputStream() override                 { flush(); }

    void flush() override
    {
        stream->flush();
        note (true);
    }

    bool setPosition (juce::int64 position) override { return note (stream->setPosition (position)); }
    juce::int64 getPosition() override              { return stream->getPosition(); }

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

namespace
{
    juce::String systemError()
    {
        return std::strerror (errno);
    }

    /** JUCE's FLAC reader ignores decoder errors and pads with silence; libFLAC itself
        tells a damaged or truncated stream by its sample count and MD5 signature. */
    juce::String checkFlacStream (const juce::File& file)
    {
        struct Check
        {
            FLAC__uint64 expected = 0, decoded = 0;
            bool damaged = false;
        } check;

        const auto write = [] (const FLAC__StreamDecoder*, const FLAC__Frame* frame, const FLAC__int32* const[], void* data)
        {
            static_cast<Check*> (data)->decoded += frame->header.blocksize;
            return FLAC__STREAM_DECODER_WRITE_STATUS_CONTINUE;
        };

        const auto metadata = [] (const FLAC__StreamDecoder*, const FLAC__StreamMetadata* block, void* data)
        {
            if (block->type == FLAC__METADATA_TYPE_STREAMINFO)
                static_cast<Check*> (data)->expected = block->data.stream_info.total_samples;
        };

        const auto error = [] (const FLAC__StreamDecoder*, FLAC__StreamDecoderErrorStatus, void* data)
        {
            static_cast<Check*> (data)->damaged = true;
        };

        std::unique_ptr<FLAC__StreamDecoder, decltype (&FLAC__stream_decoder_delete)>
            decoder (FLAC__stream_decoder_new(), &FLAC__stream_decoder_delete);

        if (decoder == nullptr)
            return "out of memory";

        FLAC__stream_decoder_set_md5_checking (decoder.get(), true);

        if (FLAC__stream_decoder_init_file (decoder.get(), file.getFullPathName().toRawUTF8(),
                                            write, metadata, error, &check) != FLAC__STREAM_DECODER_INIT_STATUS_OK)
            return "cannot be opened for decoding";

        const auto finished = FLAC__stream_decoder_process_until_end_of_stream (decoder.get());
        const auto md5Matches = FLAC__stream_decoder_finish (decoder.get());

        if (check.expected != 0 && check.decoded < check.expected)
            return "is truncated: " + juce::String ((juce::int64) check.decoded) + " of "
                   + juce::String ((juce::int64) check.expected) + " samples decode";

        if (! finished || check.damaged)
            return "is damaged (FLAC decoding errors)";

        if (! md5Matches)
            return "is damaged (the audio does not match its MD5 signature)";

        return {};
    }

    juce::String identityOf (const juce::File& file)
    {
        struct stat info {};

        if (::stat (file.getFullPathName().toRawUTF8(), &info) != 0)
            return {};

        return juce::String ((juce::int64) info.st_dev) + ":" + juce::String ((juce::int64) info.st_ino) + ":"
             + juce::String ((juce::int64) info.st_size) + ":" + juce::String ((juce::int64) info.st_mtim.tv_sec) + "."
             + juce::String ((juce::int64) info.st_mtim.tv_nsec);
    }

    /** JUCE's WAV reader allocates what a chunk header claims before it reads the chunk, so
        a damaged or hostile header could make it ask for gigabytes. Empty when the chunks
        fit in the file (or it is no RIFF/AIFF file); an audio chunk may run past the end,
        which reading reports as truncation. Notes where the metadata chunks that JUCE reads
        unsafely start (WAV XML: read past the end of malformed text, or an endless loop on
        some damaged XML; AIFF 'cate': read past the chunk). Renders need none of them. */
    /** Also notes the most channels any WAV format chunk declares: JUCE's WAV reader gives
        channels past its channel types (over 128) values its own enum cannot hold. */
    juce::String checkChunkSizes (juce::InputStream& in, std::vector<juce::int64>& unsafeChunkIds, int& declaredChannels)
    {
        const auto total = in.getTotalLength();
        char kind[4] {};

        if (! in.setPosition (0) || in.read (kind, 4) != 4)
            return {};

        const auto is = [] (const char* a, const char* b) { return std::memcmp (a, b, 4) == 0; };
        const auto isRiff = is (kind, "RIFF") || is (kind, "RIFX") || is (kind, "RF64");
        const auto bigEndian = is (kind, "FORM") || is (kind, "RIFX");

        if (! isRiff && ! is (kind, "FORM"))
            return {};

        in.setPosition (12);

        while (in.getPosition() + 8 <= total)
        {
            char id[4] {};
            in.read (id, 4);
            const auto size = (juce::int64) (juce::uint32) (bigEndian ? in.readIntBigEndian() : in.readInt());
            const auto start = in.getPosition();
            const auto isAudio = is (id, "data") || is (id, "SSND");

            if (isRiff ? (is (id, "iXML") || is (id, "axml")) : is (id, "cate"))
                unsafeChunkIds.push_back (start - 8);

            if (isRiff && is (id, "fmt ") && size >= 4)
            {
                in.skipNextBytes (2);
                const auto channels = (int) (juce::uint16) (bigEndian ? in.readShortBigEndian() : in.readShort());
                declaredChannels = std::max (declaredChannels, channels);
            }

            const auto name = [&]
            {
                juce::String printable;
                for (auto c : id)
                    printable << (c >= 32 && c < 127 ? c : '?');
                return printable;
            };

            if (size > total - start)
            {
                // RF64 keeps its real sizes in the ds64 chunk and writes 0xffffffff here.
                if (isAudio || (is (kind, "RF64") && size == 0xffffffff))
                    return {};

                return "damaged header: its '" + name() + "' chunk claims " + juce::String (size)
                       + " bytes, more than the file holds";
            }

            // JUCE's AIFF reader reads as many markers or comments as the count says, past the
            // chunk and the file's end: up to 65535 of them, for seconds. Each takes 8 bytes or more.
            if (bigEndian && (is (id, "MARK") || is (id, "COMT")))
            {
                const auto count = size >= 2 ? (juce::int64) (juce::uint16) in.readShortBigEndian() : 0;

                if (size < 2 || 2 + count * 8 > size)
                    return "damaged header: its '" + name() + "' chunk lists " + juce::String (count)
                           + " entries in " + juce::String (size) + " bytes";
            }

            in.setPosition (start + size + (size & 1));
        }

        return {};
    }

    std::vector<std::unique_ptr<juce::AudioFormat>> inputFormatsFor (const juce::File& file)
    {
        std::vector<std::unique_ptr<juce::AudioFormat>> formats;
        formats.push_back (std::make_unique<juce::WavAudioFormat>());
        formats.push_back (std::make_unique<juce::AiffAudioFormat>());
        formats.push_back (std::make_unique<juce::FlacAudioFormat>());

        // The extension's format first; the others still get a try, by content.
        std::stable_partition (formats.begin(), formats.end(),
                               [&] (auto& format) { return format->canHandleFile (file); });
        return formats;
    }
}

//==============================================================================
InputAudio::InputAudio (const juce::File& fileToRead) : file (fileToRead)
{
    if (! file.exists())
        throw CliError (ExitCode::inputUnreadable, quoted (file) + ": no such file");

    if (file.isDirectory())
        throw CliError (ExitCode::inputUnreadable, quoted (file) + " is a folder, not an audio file");

    identity = identityOf (file);
    auto stream = std::make_unique<juce::FileInputStream> (file);

    if (stream->failedToOpen())
        throw CliError (ExitCode::inputUnreadable, quoted (file) + ": cannot read: " + stream->getStatus().getErrorMessage());

    const auto refuseChannels = [&] (int channels)
    {
        return CliError (ExitCode::badFormat, quoted (file) + " has " + juce::String (channels)
                                              + " channels; Quenda is a stereo equaliser and takes mono or stereo files");
    };

    std::vector<juce::int64> unsafeChunkIds;
    auto declaredChannels = 0;

    if (const auto problem = checkChunkSizes (*stream, unsafeChunkIds, declaredChannels); problem.isNotEmpty())
        throw CliError (ExitCode::badFormat, quoted (file) + ": " + problem);

    if (declaredChannels > 2)
        throw refuseChannels (declaredChannels);

    // Reads of one block at a time would each be a system call.
    auto watched = std::make_unique<ShortReadWatch> (std::make_unique<juce::BufferedInputStream> (stream.release(), 1 << 16, true));
    watched->hiddenChunkIds = std::move (unsafeChunkIds);

    for (auto& format : inputFormatsFor (file))
    {
        watched->setPosition (0);

        if (auto* opened = format->createReaderFor (watched.get(), false))
        {
            watch = watched.release();
            reader.reset (opened);
            break;
        }
    }

    if (reader == nullptr)
        throw CliError (ExitCode::badFormat, quoted (file) + ": not a WAV, AIFF or FLAC file, or its header is damaged");

    if (reader->numChannels < 1 || reader->numChannels > 2)
        throw refuseChannels ((int) reader->numChannels);

    if (! (reader->sampleRate >= 8000.0 && reader->sampleRate < 384000.0))
        throw CliError (ExitCode::badFormat, quoted (file) + ": unsupported sample rate "
                                              + juce::String (reader->sampleRate) + " Hz (8000 to 383999 Hz)");

    // Frames of absurd size make JUCE's WAV and AIFF readers loop without end.
    if (! isFlac() && reader->bitsPerSample != 8 && reader->bitsPerSample != 16
                   && reader->bitsPerSample != 24 && reader->bitsPerSample != 32)
        throw CliError (ExitCode::badFormat, quoted (file) + ": unsupported sample format ("
                                              + juce::String (reader->bitsPerSample) + " bits)");

    if (reader->lengthInSamples < 0)
        throw CliError (ExitCode::badFormat, quoted (file) + ": damaged header (negative length)");

    if (isFlac())
    {
        if (const auto problem = checkFlacStream (file); problem.isNotEmpty())
            throw CliError (ExitCode::badFormat, quoted (file) + " " + problem);
    }
    else if (reader->lengthInSamples > 0)
    {
        // Catch a truncated file now rather than after a long render.
        juce::AudioBuffer<float> last (numChannels(), 1);
        read (last, reader->lengthInSamples - 1, 1);
    }
}

InputAudio::~InputAudio() = default;

void InputAudio::read (juce::AudioBuffer<float>& block, juce::int64 position, int numSamples)
{
    watch->shortRead = false;
    reader->read (&block, 0, numSamples, position, true, true);

    // libFLAC reads ahead in large chunks, so a short read is normal there.
    if (watch->shortRead && ! isFlac())
        throw CliError (ExitCode::badFormat, quoted (file) + " is truncated: its audio data ends before the length its header gives");
}

void InputAudio::checkUnchanged() const
{
    if (identityOf (file) != identity)
        throw CliError (ExitCode::inputUnreadable, quoted (file) + " changed while it was being read; nothing was written");
}

//==============================================================================
PendingFile::PendingFile (const juce::File& targetFile, bool overwriteExisting)
    : target (targetFile), overwrite (overwriteExisting)
{
    const auto folder = target.getParentDirectory();

    if (target.isDirectory())
        throw CliError (ExitCode::outputUnwritable, quoted (target) + " is a folder");

    if (target.existsAsFile() && ! overwrite)
        throw CliError (ExitCode::outputExists, quoted (target) + " exists; use -y/--overwrite to replace it");

    if (! folder.isDirectory())
        throw CliError (ExitCode::outputUnwritable, "cannot write " + quoted (target) + ": folder "
                                                     + quoted (folder) + " does not exist");

    auto pattern = folder.getChildFile ("." + target.getFileName() + ".XXXXXX").getFullPathName().toStdString();
    const auto descriptor = ::mkstemp (pattern.data());

    if (descriptor < 0)
        throw CliError (ExitCode::outputUnwritable, "cannot write in " + quoted (folder) + ": " + systemError());

    // mkstemp makes the file private; give it the mode a plain new file would get.
    const auto mask = ::umask (0);
    ::umask (mask);
    ::fchmod (descriptor, 0666 & ~mask);
    ::close (descriptor);

    temp = juce::File (juce::String (pattern));
    interrupt::track (temp);
}

PendingFile::~PendingFile()
{
    if (! committed)
        temp.deleteFile();

    interrupt::untrack (temp);
}

void PendingFile::commit()
{
    const auto tempPath = temp.getFullPathName();
    const auto targetPath = target.getFullPathName();

    {
        const auto descriptor = ::open (tempPath.toRawUTF8(), O_RDONLY);

        if (descriptor < 0 || ::fsync (descriptor) != 0)
        {
            const auto message = systemError();

            if (descriptor >= 0)
                ::close (descriptor);

            throw CliError (ExitCode::outputUnwritable, "cannot write " + quoted (target) + ": " + message);
        }

        ::close (descriptor);
    }

    if (overwrite)
    {
        if (::rename (tempPath.toRawUTF8(), targetPath.toRawUTF8()) != 0)
            throw CliError (ExitCode::outputUnwritable, "cannot write " + quoted (target) + ": " + systemError());
    }
    else
    {
        // link() fails if the target appeared while rendering: nothing is replaced by surprise.
        if (::link (tempPath.toRawUTF8(), targetPath.toRawUTF8()) != 0)
        {
            if (errno == EEXIST)
                throw CliError (ExitCode::outputExists, quoted (target) + " appeared while rendering; use -y/--overwrite to replace it");

            throw CliError (ExitCode::outputUnwritable, "cannot write " + quoted (target) + ": " + systemError());
        }

        temp.deleteFile();
    }

    committed = true;
    interrupt::untrack (temp);
}

void writeFileSafely (const juce::File& target, const juce::MemoryBlock& data, bool overwrite)
{
    PendingFile pending (target, overwrite);

    {
        juce::FileOutputStream stream (pending.temporary());

        if (stream.failedToOpen() || ! stream.write (data.getData(), data.getSize()))
            throw CliError (ExitCode::outputUnwritable, "cannot write " + quoted (target) + ": "
                                                         + stream.getStatus().getErrorMessage());

        stream.flush();

        if (stream.getStatus().failed())
            throw CliError (ExitCode::outputUnwritable, "cannot write " + quoted (target) + ": "
                                                         + stream.getStatus().getErrorMessage());
    }

    pending.commit();
}

bool isSameFile (const juce::File& a, const juce::File& b)
{
    struct stat first {}, second {};

    if (::stat (a.getFullPathName().toRawUTF8(), &first) == 0 && ::stat (b.getFullPathName().toRawUTF8(), &second) == 0)
        return first.st_dev == second.st_dev && first.st_ino == second.st_ino;

    // One does not exist yet: compare resolved folders and names.
    const auto canonical = [] (const juce::File& file)
    {
        char resolved[PATH_MAX];
        const auto folder = file.getParentDirectory().getFullPathName();

        if (::realpath (folder.toRawUTF8(), resolved) == nullptr)
            return file.getFullPathName();

        return juce::File (juce::String::fromUTF8 (resolved)).getChildFile (file.getFileName()).getFullPathName();
    };

    return canonical (a) == canonical (b);
}

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

    /** A 16-bit level of each of four samples: TPDF dither of +-1 step from two draws, half a
        step, then floored, within the format's range. NaN gives 0. */
    DitherNoise::Ints ditheredLevels (DitherNoise::Floats samples, DitherNoise::Words first, DitherNoise::Words second) noexcept
    {
        using Ints = DitherNoise::Ints;
        using Floats = DitherNoise::Floats;

        // 24 bits of each draw: their difference converts exactly.
        const auto dither = __builtin_convertvector ((Ints) (first >> 8) - (Ints) (second >> 8), Floats) * (1.0f / 16777216.0f);
        auto exact = samples * ditherScale + dither + 0.5f;
        exact = exact == exact ? exact : Floats {};
        exact = exact < -ditherScale ? Floats {} - ditherScale : exact;
        const auto limited = exact > ditherScale - 1.0f ? Floats {} + (ditherScale - 1.0f) : exact;
        const auto truncated = __builtin_convertvector (limited, Ints);
        return truncated + (limited < __builtin_convertvector (truncated, Floats));   // true is -1
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
      outcome (std::make_shared<WriteOutcome>())
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

        clipped += beyondFullScale;
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

                const auto levels = ditheredLevels (samples, draws.first, draws.second) * 65536;

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

            for (int i = done; i + DitherNoise::lanes <= numSamples; i += DitherNoise::lanes)
            {
                DitherNoise::Floats samples;
                std::memcpy (&samples, source + i, sizeof (samples));
                const auto first = noise.next();
                const auto levels = ditheredLevels (samples, first, noise.next()) * 65536;
                std::memcpy (target + i, &levels, sizeof (levels));
            }
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
            target[i] = sample <= -1.0 ? std::numeric_limits<int>::min()
                      : sample >= 1.0  ? std::numeric_limits<int>::max()
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
