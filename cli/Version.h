// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <juce_core/juce_core.h>

namespace cli
{
/** "quenda-render 1.1.0 (git 0123abcd4567)\n"; without the hash when built outside git. */
juce::String versionText();
}
