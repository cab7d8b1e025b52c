// SPDX-License-Identifier: GPL-3.0-or-later
#include "AudioReader.h"
#include "CliError.h"
#include "WavReader.h"

#include <FLAC/stream_decoder.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <sys/stat.h>

namespace cli
{
/** Notes whether any read came back short. JUCE's WAV and AIFF readers fill a missing
    tail with silence, so a truncated file would otherwise render without complaint. */
class ShortReadWatch : public juce::InputStream
{
public:
    explicit ShortReadWatch (std::unique_ptr<juce::InputStream> source)
        : stream (std::move (source)) {}

    juce::int64 getTotalLength() override { return stream->getTotalLength(); }
    bool isExhausted() override { return stream->isExhausted(); }
    juce::int64 getPosition() override { return stream->getPosition(); }
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

namespace
{
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
                                            write, metadata, error, &check)
            != FLAC__STREAM_DECODER_INIT_STATUS_OK)
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
        struct stat info
        {
        };

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
        channels past its channel types (over 128) values its own enum cannot hold. And fills
        the layout of a RIFF WAV file, reading a data size that is unknown (0xFFFFFFFF, as
        streamed files give) or 0 (as a recorder that died leaves) as "to the end of the file". */
    juce::String checkChunkSizes (juce::InputStream& in, std::vector<juce::int64>& unsafeChunkIds, int& declaredChannels,
                                  WavLayout& layout)
    {
        const auto total = in.getTotalLength();
        char kind[4] {};

        if (! in.setPosition (0) || in.read (kind, 4) != 4)
            return {};

        const auto is = [] (const char* a, const char* b)
        { return std::memcmp (a, b, 4) == 0; };
        const auto isRiff = is (kind, "RIFF") || is (kind, "RIFX") || is (kind, "RF64");
        const auto bigEndian = is (kind, "FORM") || is (kind, "RIFX");

        if (! isRiff && ! is (kind, "FORM"))
            return {};

        const auto riffSize = (juce::int64) (juce::uint32) in.readInt();
        layout.isRiff = is (kind, "RIFF");
        in.setPosition (12);

        const auto isChunkId = [] (const char* id)
        {
            return std::all_of (id, id + 4, [] (char c)
                                { return c >= 32 && c < 127; });
        };

        // Raw bytes are never printed: a damaged file's "chunk ID" may be audio.
        const auto describe = [] (const char* id, juce::int64 at)
        {
            const auto isName = std::all_of (id, id + 4, [] (char c)
                                             { return juce::CharacterFunctions::isLetterOrDigit (c) || c == ' ' || c == '_'; });
            return isName ? "its '" + juce::String (id, 4) + "' chunk" : "the chunk at byte " + juce::String (at);
        };

        // Whether the bytes from a position on are whole chunks up to the end of the file.
        const auto chunksFollow = [&] (juce::int64 position)
        {
            while (position + 8 <= total)
            {
                char id[4] {};
                in.setPosition (position);
                in.read (id, 4);
                const auto size = (juce::int64) (juce::uint32) in.readInt();

                if (! isChunkId (id) || size > total - position - 8)
                    return false;

                position += 8 + size + (size & 1);
            }

            return position >= total;
        };

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
                const auto formatTag = (int) (juce::uint16) in.readShort();
                const auto channels = (int) (juce::uint16) (bigEndian ? in.readShortBigEndian() : in.readShort());
                declaredChannels = std::max (declaredChannels, channels);

                if (layout.isRiff && size >= 16)
                {
                    layout.hasFormat = true;
                    layout.channels = channels;
                    layout.sampleRate = (double) (juce::uint32) in.readInt();
                    in.skipNextBytes (4);
                    layout.blockAlign = (int) (juce::uint16) in.readShort();
                    layout.bitsPerSample = (int) (juce::uint16) in.readShort();
                    layout.isFloat = formatTag == 3;

                    // WAVE_FORMAT_EXTENSIBLE: the sub-format GUID starts with the format tag.
                    if (formatTag == 0xfffe && size >= 40)
                    {
                        in.skipNextBytes (8);
                        const auto subFormat = in.readInt();
                        layout.isFloat = subFormat == 3;
                        layout.hasFormat = subFormat == 1 || subFormat == 3;
                    }
                    else if (formatTag != 1 && formatTag != 3)
                    {
                        layout.hasFormat = false;
                    }
                }
            }

            if (layout.isRiff && is (id, "data") && layout.dataStart < 0)
            {
                layout.dataStart = start;
                layout.dataSize = std::min (size, total - start);

                if (size == 0xffffffff || (size == 0 && start < total && ! chunksFollow (start)))
                {
                    layout.dataSize = total - start;
                    layout.repair = juce::String ("its header gives no length for the audio (")
                                    + (size == 0 ? "0, as a recording that was cut off leaves" : "0xFFFFFFFF, as streamed files give")
                                    + "); the audio was read to the end of the file";
                    break;
                }
            }

            // RF64 keeps the audio's real size in the ds64 chunk: past 4 GB, the 32-bit size
            // here would land inside the audio.
            if (is (kind, "RF64") && isAudio)
                break;

            if (size > total - start)
            {
                // RF64 keeps its real sizes in the ds64 chunk and writes 0xffffffff here.
                if (isAudio || (is (kind, "RF64") && size == 0xffffffff))
                    break;

                return "damaged header: " + describe (id, start - 8) + " claims " + juce::String (size)
                       + " bytes, more than the file holds";
            }

            // JUCE's AIFF reader reads as many markers or comments as the count says, past the
            // chunk and the file's end: up to 65535 of them, for seconds. Each takes 8 bytes or more.
            if (bigEndian && (is (id, "MARK") || is (id, "COMT")))
            {
                const auto count = size >= 2 ? (juce::int64) (juce::uint16) in.readShortBigEndian() : 0;

                if (size < 2 || 2 + count * 8 > size)
                    return "damaged header: " + describe (id, start - 8) + " lists " + juce::String (count)
                           + " entries in " + juce::String (size) + " bytes";
            }

            in.setPosition (start + size + (size & 1));
        }

        // JUCE looks for chunks only within the size the RIFF header gives.
        if (layout.isRiff && layout.dataStart >= 0 && riffSize + 8 <= layout.dataStart - 8 && layout.repair.isEmpty())
            layout.repair = "its header gives a file length (" + juce::String (riffSize)
                            + " bytes) that ends before the audio; the chunks were read as the file holds them";

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
                               [&] (auto& format)
                               { return format->canHandleFile (file); });
        return formats;
    }
}

//==============================================================================
InputAudio::InputAudio (const juce::File& fileToRead)
    : file (fileToRead)
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
    WavLayout layout;

    if (const auto problem = checkChunkSizes (*stream, unsafeChunkIds, declaredChannels, layout); problem.isNotEmpty())
        throw CliError (ExitCode::badFormat, quoted (file) + ": " + problem);

    if (declaredChannels > 2)
        throw refuseChannels (declaredChannels);

    // Reads of one block at a time would each be a system call.
    auto watched = std::make_unique<ShortReadWatch> (std::make_unique<juce::BufferedInputStream> (stream.release(), 1 << 16, true));
    watched->hiddenChunkIds = std::move (unsafeChunkIds);

    if (layout.needsOwnReader())
    {
        if (auto* opened = createPlainWavReader (watched.get(), layout))
        {
            watch = watched.release();
            reader.reset (opened);

            if (layout.repair.isNotEmpty())
                notes.add (quoted (file) + ": " + layout.repair);
        }
    }

    for (auto& format : inputFormatsFor (file))
    {
        if (reader != nullptr)
            break;

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

    if (! (reader->sampleRate >= 8000.0 && reader->sampleRate <= 384000.0))
        throw CliError (ExitCode::badFormat, quoted (file) + ": unsupported sample rate "
                                                 + juce::String (reader->sampleRate) + " Hz (8000 to 384000 Hz)");

    // Frames of absurd size make JUCE's WAV and AIFF readers loop without end.
    if (! isFlac() && reader->bitsPerSample != 8 && reader->bitsPerSample != 16
        && reader->bitsPerSample != 24 && reader->bitsPerSample != 32
        && ! (reader->bitsPerSample == 64 && isFloat()))
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

    // One bad sample would otherwise silence the processor's whole block, in both channels.
    if (isFloat())
    {
        for (int channel = 0; channel < block.getNumChannels(); ++channel)
        {
            auto* samples = block.getWritePointer (channel);

            for (int i = 0; i < numSamples; ++i)
            {
                if (std::isfinite (samples[i]))
                    continue;

                samples[i] = 0.0f;

                if (replaced.count++ == 0 || position + i < replaced.firstPosition)
                {
                    replaced.firstPosition = position + i;
                    replaced.firstChannel = channel;
                }
            }
        }
    }
}

void InputAudio::checkUnchanged() const
{
    if (identityOf (file) != identity)
        throw CliError (ExitCode::inputUnreadable, quoted (file) + " changed while it was being read; nothing was written");
}
}
