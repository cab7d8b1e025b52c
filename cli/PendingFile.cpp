// SPDX-License-Identifier: GPL-3.0-or-later
#include "PendingFile.h"
#include "CliError.h"
#include "Interrupt.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cli
{
namespace
{
    juce::String systemError()
    {
        return std::strerror (errno);
    }
}

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
}
