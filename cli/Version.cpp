// SPDX-License-Identifier: GPL-3.0-or-later
#include "Version.h"
#include "QuendaBuildVersion.h"

namespace cli
{
juce::String versionText()
{
    juce::String text ("quenda-render " QUENDA_VERSION);

    if (juce::String (QUENDA_GIT_HASH).isNotEmpty())
        text << " (git " << QUENDA_GIT_HASH << ")";

    return text + "\n";
}
}
