// SPDX-License-Identifier: GPL-3.0-or-later
#include "PendingFile.h"
#include "CliError.h"
#include "Interrupt.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <memory>
#include <signal.h>
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

    bool isReadOnly (const struct stat& info)
    {
        return (info.st_mode & 0222) == 0;
    }

    /** When the process started, or -1 if it cannot be told (no /proc). */
    double processStartTime (pid_t pid)
    {
        const auto stat = juce::File ("/proc/" + juce::String (pid) + "/stat").loadFileAsString();
        const auto bootLine = juce::File ("/proc/stat").loadFileAsString().fromFirstOccurrenceOf ("btime ", false, false).upToFirstOccurrenceOf ("\n", false, false);

        // Field 22, counted after the command name, which may itself hold spaces.
        const auto fields = juce::StringArray::fromTokens (stat.fromLastOccurrenceOf (")", false, false), " ", {});
        const auto ticks = sysconf (_SC_CLK_TCK);

        if (fields.size() < 21 || bootLine.isEmpty() || ticks <= 0)
            return -1.0;

        return bootLine.getDoubleValue() + fields[19].getDoubleValue() / (double) ticks;
    }

    /** A temporary file of ours is stale when the process named in it is gone, or when the
        process now holding that ID started after the file was last written. */
    bool isStale (pid_t pid, const struct stat& info)
    {
        if (pid == ::getpid())
            return false;

        if (::kill (pid, 0) != 0)
            return errno == ESRCH;

        const auto started = processStartTime (pid);
        return started > 0.0 && started > (double) info.st_mtim.tv_sec + 1.0;
    }

    /** Removes ".name.PID.XXXXXX" files of this user in the folder whose process is gone. */
    juce::StringArray removeStaleTemporaries (const juce::File& folder, const juce::String& name)
    {
        juce::StringArray removed;
        const auto prefix = "." + name + ".";
        struct Closer
        {
            void operator() (DIR* d) const { ::closedir (d); }
        };
        std::unique_ptr<DIR, Closer> directory (::opendir (folder.getFullPathName().toRawUTF8()));

        if (directory == nullptr)
            return removed;

        while (const auto* entry = ::readdir (directory.get()))
        {
            const auto entryName = juce::String::fromUTF8 (entry->d_name);

            if (! entryName.startsWith (prefix))
                continue;

            const auto pidText = entryName.substring (prefix.length()).upToFirstOccurrenceOf (".", false, false);
            const auto suffix = entryName.substring (prefix.length() + pidText.length());

            if (pidText.isEmpty() || ! pidText.containsOnly ("0123456789") || pidText.length() > 9 || suffix.length() != 7)
                continue;

            const auto file = folder.getChildFile (entryName);
            struct stat info
            {
            };

            if (::lstat (file.getFullPathName().toRawUTF8(), &info) != 0 || ! S_ISREG (info.st_mode) || info.st_uid != ::getuid())
                continue;

            const auto pid = (pid_t) pidText.getIntValue();

            if (isStale (pid, info) && ::unlink (file.getFullPathName().toRawUTF8()) == 0)
                removed.add ("removed " + quoted (file) + ", left by an interrupted render (process " + pidText + ")");
        }

        return removed;
    }
}

juce::File followLinks (const juce::File& file)
{
    auto current = file;

    for (int hops = 0; hops < 40; ++hops)
    {
        struct stat info
        {
        };

        if (::lstat (current.getFullPathName().toRawUTF8(), &info) != 0 || ! S_ISLNK (info.st_mode))
            return current;

        char target[PATH_MAX];
        const auto length = ::readlink (current.getFullPathName().toRawUTF8(), target, sizeof (target) - 1);

        if (length < 0)
            return current;

        target[length] = 0;
        current = current.getParentDirectory().getChildFile (juce::String::fromUTF8 (target));
    }

    throw CliError (ExitCode::outputUnwritable, "cannot write " + quoted (file) + ": too many levels of symbolic links");
}

void refuseToReplace (const juce::File& file, bool overwrite)
{
    struct stat info
    {
    };

    if (overwrite || ::stat (file.getFullPathName().toRawUTF8(), &info) != 0 || S_ISDIR (info.st_mode))
        return;

    throw CliError (ExitCode::outputExists, quoted (file) + (isReadOnly (info) ? " exists and is read-only" : " exists")
                                                + "; use -y/--overwrite to replace it");
}

PendingFile::PendingFile (const juce::File& targetFile, bool overwriteExisting)
    : target (targetFile), resolved (followLinks (targetFile)), overwrite (overwriteExisting)
{
    const auto folder = resolved.getParentDirectory();

    if (resolved.isDirectory())
        throw CliError (ExitCode::outputUnwritable, quoted (target) + " is a folder");

    refuseToReplace (resolved, overwrite);

    if (! folder.isDirectory())
        throw CliError (ExitCode::outputUnwritable, "cannot write " + quoted (target) + ": folder "
                                                        + quoted (folder) + " does not exist");

    notes = removeStaleTemporaries (folder, resolved.getFileName());

    auto pattern = folder.getChildFile ("." + resolved.getFileName() + "." + juce::String (::getpid()) + ".XXXXXX")
                       .getFullPathName()
                       .toStdString();
    const auto descriptor = ::mkstemp (pattern.data());

    if (descriptor < 0)
        throw CliError (ExitCode::outputUnwritable, "cannot write in " + quoted (folder) + ": " + systemError());

    // mkstemp makes the file private; give it the mode a plain new file would get, or the
    // mode of the file it replaces.
    struct stat existing
    {
    };
    const auto mask = ::umask (0);
    ::umask (mask);

    if (::stat (resolved.getFullPathName().toRawUTF8(), &existing) == 0)
    {
        replacesReadOnly = isReadOnly (existing);
        ::fchmod (descriptor, existing.st_mode & 07777);
    }
    else
    {
        ::fchmod (descriptor, 0666 & ~mask);
    }

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
    const auto targetPath = resolved.getFullPathName();

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

    if (replacesReadOnly)
        notes.add ("replaced " + quoted (target) + ", which was read-only (-y/--overwrite)");
}

juce::StringArray writeFileSafely (const juce::File& target, const juce::MemoryBlock& data, bool overwrite)
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
    return pending.notices();
}

bool isSameFile (const juce::File& a, const juce::File& b)
{
    struct stat first
    {
    }, second {};

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
