// SPDX-License-Identifier: GPL-3.0-or-later
#include "Pipes.h"
#include "CliError.h"
#include "Interrupt.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace cli
{
namespace
{
    juce::File temporaryFolder()
    {
        // Where the user keeps large temporary files, if they said.
        if (const auto* folder = std::getenv ("TMPDIR"); folder != nullptr && juce::File::isAbsolutePath (folder)
                                                         && juce::File (folder).isDirectory())
            return juce::File (folder);

        return juce::File::getSpecialLocation (juce::File::tempDirectory);
    }

    bool writeAll (int descriptor, const char* data, size_t size)
    {
        while (size > 0)
        {
            const auto written = ::write (descriptor, data, size);

            if (written < 0 && errno == EINTR)
                continue;

            if (written <= 0)
                return false;

            data += written;
            size -= (size_t) written;
        }

        return true;
    }

    /** A piped WAV's writer cannot seek back to fill in its sizes (sox leaves 0x7ffff000):
        the data chunk runs to the end of what arrived. */
    void fixWavSizes (juce::File& file)
    {
        juce::FileInputStream in (file);
        const auto total = in.getTotalLength();
        char kind[12] {};

        if (in.read (kind, 12) != 12 || std::memcmp (kind, "RIFF", 4) != 0 || std::memcmp (kind + 8, "WAVE", 4) != 0)
            return;

        while (in.getPosition() + 8 <= total)
        {
            char id[4] {};
            in.read (id, 4);
            const auto sizePosition = in.getPosition();
            const auto size = (juce::int64) (juce::uint32) in.readInt();
            const auto remaining = total - (sizePosition + 4);

            if (std::memcmp (id, "data", 4) == 0)
            {
                if (size <= remaining && size != 0)
                    return;

                juce::FileOutputStream out (file);
                out.setPosition (4);
                out.writeInt ((int) (juce::uint32) std::min (total - 8, (juce::int64) 0xffffffff));
                out.setPosition (sizePosition);
                out.writeInt ((int) (juce::uint32) std::min (remaining, (juce::int64) 0xffffffff));
                return;
            }

            in.setPosition (sizePosition + 4 + size + (size & 1));
        }
    }
}

StdinSpool::StdinSpool()
{
    if (::isatty (STDIN_FILENO) == 1)
        throw CliError (ExitCode::inputUnreadable, "standard input is a terminal; pipe a WAV or FLAC stream into '-'");

    auto pattern = temporaryFolder().getChildFile ("quenda-stdin.XXXXXX").getFullPathName().toStdString();
    const auto descriptor = ::mkstemp (pattern.data());

    if (descriptor < 0)
        throw CliError (ExitCode::inputUnreadable, "cannot keep standard input in " + quoted (temporaryFolder()) + ": " + juce::String (std::strerror (errno)));

    temp = juce::File (juce::String (pattern));
    interrupt::track (temp);

    std::vector<char> buffer (1 << 16);

    for (;;)
    {
        const auto got = ::read (STDIN_FILENO, buffer.data(), buffer.size());

        if (got < 0 && errno == EINTR)
            continue;

        if (got < 0)
        {
            const juce::String problem (std::strerror (errno));
            ::close (descriptor);
            throw CliError (ExitCode::inputUnreadable, "cannot read standard input: " + problem);
        }

        if (got == 0)
            break;

        if (! writeAll (descriptor, buffer.data(), (size_t) got))
        {
            const juce::String problem (std::strerror (errno));
            ::close (descriptor);
            throw CliError (ExitCode::inputUnreadable, "cannot keep standard input in " + quoted (temporaryFolder()) + ": " + problem);
        }
    }

    ::close (descriptor);
    fixWavSizes (temp);
}

StdinSpool::~StdinSpool()
{
    temp.deleteFile();
    interrupt::untrack (temp);
}

juce::String StdinSpool::rename (const juce::String& message) const
{
    return message.replace (quoted (temp), "standard input").replace (temp.getFullPathName(), "standard input");
}

void refuseTerminalOutput()
{
    if (::isatty (STDOUT_FILENO) == 1)
        throw CliError (ExitCode::badUsage, "standard output is a terminal; pipe '-' into a program or give an OUTPUT file");
}

juce::File stdoutSpoolTarget()
{
    return temporaryFolder().getChildFile ("quenda-stdout-" + juce::String ((int) ::getpid()) + ".wav");
}

void copyToStdout (const juce::File& file)
{
    // A reader that goes away is a write error here, not a signal that skips the clean-up.
    std::signal (SIGPIPE, SIG_IGN);

    juce::FileInputStream in (file);
    std::vector<char> buffer (1 << 16);

    if (in.failedToOpen())
        throw CliError (ExitCode::outputUnwritable, "cannot read back " + quoted (file) + " for standard output");

    while (! in.isExhausted())
    {
        const auto got = in.read (buffer.data(), (int) buffer.size());

        if (got <= 0)
            break;

        if (! writeAll (STDOUT_FILENO, buffer.data(), (size_t) got))
            throw CliError (ExitCode::outputUnwritable, juce::String ("writing standard output failed: ") + juce::String (std::strerror (errno)));
    }
}
}
