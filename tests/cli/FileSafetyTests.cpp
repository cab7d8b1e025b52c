// SPDX-License-Identifier: GPL-3.0-or-later
// Nothing existing is overwritten or half-written: refusals, temp-and-rename, interrupts.

#include "TestSupport.h"
#include "AudioFiles.h"
#include "CliError.h"

#include <csignal>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quenda::cli::test
{
TEST (FileSafety, ExistingOutputIsKeptUnlessOverwriteIsGiven)
{
    TempFolder temp;
    writeAudio (temp["in.wav"], noise (2, 1000));
    temp["out.wav"].replaceWithText ("keep me");
    temp["plot.png"].replaceWithText ("keep me too");

    const auto refused = render ({ temp["in.wav"].getFullPathName(), temp["out.wav"].getFullPathName() });
    EXPECT_EQ (refused.code, (int) ExitCode::outputExists);
    EXPECT_NE (refused.err.find ("use -y/--overwrite"), std::string::npos);
    EXPECT_EQ (temp["out.wav"].loadFileAsString(), "keep me");

    // A refused side output stops the render before anything is written.
    const auto plotRefused = render ({ temp["in.wav"].getFullPathName(), temp["new.wav"].getFullPathName(),
                                       "--plot", temp["plot.png"].getFullPathName() });
    EXPECT_EQ (plotRefused.code, (int) ExitCode::outputExists);
    EXPECT_FALSE (temp["new.wav"].exists());

    const auto replaced = render ({ temp["in.wav"].getFullPathName(), temp["out.wav"].getFullPathName(), "-y", "-q" });
    EXPECT_EQ (replaced.code, 0) << replaced.err;
    EXPECT_EQ (readAudio (temp["out.wav"]).audio.getNumSamples(), 1000);
    EXPECT_EQ (temp.names(), juce::StringArray ({ "in.wav", "out.wav", "plot.png" }));
}

TEST (FileSafety, TheInputIsNeverWrittenEvenWithOverwrite)
{
    TempFolder temp;
    writeAudio (temp["in.wav"], noise (2, 1000));
    const auto before = temp["in.wav"].getSize();
    temp["sub"].createDirectory();
    ASSERT_TRUE (temp["in.wav"].createSymbolicLink (temp["alias.wav"], false));
    ASSERT_EQ (::link (temp["in.wav"].getFullPathName().toRawUTF8(), temp["hard.wav"].getFullPathName().toRawUTF8()), 0);

    for (auto target : { temp["in.wav"].getFullPathName(), temp.folder.getFullPathName() + "/sub/../in.wav",
                         temp["alias.wav"].getFullPathName(), temp["hard.wav"].getFullPathName() })
    {
        const auto result = render ({ temp["in.wav"].getFullPathName(), target, "-y", "--tilt", "1" });
        EXPECT_EQ (result.code, (int) ExitCode::outputUnwritable) << target;
        EXPECT_NE (result.err.find ("it is the input file"), std::string::npos) << result.err;
    }

    EXPECT_EQ (temp["in.wav"].getSize(), before);
    EXPECT_EQ (readAudio (temp["in.wav"]).audio.getNumSamples(), 1000);
}

TEST (FileSafety, UncreatableOutputFolderFailsCleanly)
{
    TempFolder temp;
    writeAudio (temp["in.wav"], noise (2, 1000));
    temp["plain-file"].replaceWithText ("not a folder");

    const auto result = render ({ temp["in.wav"].getFullPathName(), temp["plain-file"].getChildFile ("out.wav").getFullPathName() });
    EXPECT_EQ (result.code, (int) ExitCode::outputUnwritable);
    EXPECT_NE (result.err.find ("does not exist"), std::string::npos) << result.err;
    EXPECT_EQ (temp.names(), juce::StringArray ({ "in.wav", "plain-file" }));
}

TEST (FileSafety, PendingFileAppearsOnlyOnCommit)
{
    TempFolder temp;
    temp["out.txt"].replaceWithText ("old");

    {
        PendingFile abandoned (temp["out.txt"], true);
        EXPECT_EQ (abandoned.temporary().getParentDirectory(), temp.folder);
        abandoned.temporary().replaceWithText ("half");
    }

    EXPECT_EQ (temp["out.txt"].loadFileAsString(), "old");
    EXPECT_EQ (temp.names(), juce::StringArray ({ "out.txt" }));

    {
        PendingFile pending (temp["new.txt"], false);
        pending.temporary().replaceWithText ("done");
        EXPECT_FALSE (temp["new.txt"].exists());

        // Someone else creates the target meanwhile: commit must not replace it.
        temp["new.txt"].replaceWithText ("theirs");
        EXPECT_THROW (pending.commit(), CliError);
    }

    EXPECT_EQ (temp["new.txt"].loadFileAsString(), "theirs");

    {
        PendingFile pending (temp["new.txt"], true);
        pending.temporary().replaceWithText ("done");
        pending.commit();
    }

    EXPECT_EQ (temp["new.txt"].loadFileAsString(), "done");
    EXPECT_EQ (temp.names(), juce::StringArray ({ "new.txt", "out.txt" }));
}

TEST (FileSafety, WriteFailingMidRenderLeavesNoFile)
{
    TempFolder temp;
    writeAudio (temp["in.wav"], noise (2, 96000));

    // A file size limit makes writes fail partway, as a full disk would.
    rlimit previous {};
    ASSERT_EQ (::getrlimit (RLIMIT_FSIZE, &previous), 0);
    const auto previousHandler = std::signal (SIGXFSZ, SIG_IGN);
    rlimit limited = previous;
    limited.rlim_cur = 64 * 1024;
    ASSERT_EQ (::setrlimit (RLIMIT_FSIZE, &limited), 0);

    const auto result = render ({ temp["in.wav"].getFullPathName(), temp["out.wav"].getFullPathName(), "--tilt", "0.5" });

    ::setrlimit (RLIMIT_FSIZE, &previous);
    std::signal (SIGXFSZ, previousHandler);

    EXPECT_EQ (result.code, (int) ExitCode::outputUnwritable) << result.err;
    EXPECT_EQ (temp.names(), juce::StringArray ({ "in.wav" }));
}

TEST (FileSafety, InterruptRemovesTheTemporaryFile)
{
    TempFolder temp;
    writeAudio (temp["long.wav"], noise (1, 48000 * 120), 48000.0, 16);

    const auto pid = ::fork();
    ASSERT_GE (pid, 0);

    if (pid == 0)
    {
        ::execl (QUENDA_RENDER_PATH, QUENDA_RENDER_PATH, "-q", "--lin-phase", "--tilt", "1", "--block-size", "32",
                 temp["long.wav"].getFullPathName().toRawUTF8(), temp["out.wav"].getFullPathName().toRawUTF8(), (char*) nullptr);
        ::_exit (127);
    }

    // Interrupt once the render is under way, i.e. its temporary file exists.
    bool started = false;

    for (int attempt = 0; attempt < 3000 && ! started; ++attempt)
    {
        started = temp.names().size() > 1;
        if (! started)
            ::usleep (2000);
    }

    ::kill (pid, SIGINT);
    int status = 0;
    ::waitpid (pid, &status, 0);

    ASSERT_TRUE (started);
    ASSERT_TRUE (WIFSIGNALED (status)) << "finished before the interrupt; status " << status;
    EXPECT_EQ (WTERMSIG (status), SIGINT);
    EXPECT_EQ (temp.names(), juce::StringArray ({ "long.wav" }));
}
}
