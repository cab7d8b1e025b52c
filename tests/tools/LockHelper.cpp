// SPDX-License-Identifier: GPL-3.0-or-later
// A second plug-in process for the lock tests.
//   quenda-lock-helper hold    takes the engine lock, prints "held", frees it when a line arrives
//   quenda-lock-helper start   constructs one processor, as a host loading the plug-in does

#include "processor/PluginProcessor.h"

#include <iostream>
#include <string>

int main (int argc, char** argv)
{
    const std::string mode = argc > 1 ? argv[1] : "";

    if (mode == "hold")
    {
        auto& lock = platform::NamedSemaphore::open (QuendaAudioProcessor::engineLockName);
        lock.wait();
        std::cout << "held" << std::endl;

        std::string line;
        std::getline (std::cin, line);
        lock.release();
        return 0;
    }

    if (mode == "start")
    {
        juce::ScopedJuceInitialiser_GUI juceInitialiser;
        QuendaAudioProcessor processor;
        return 0;
    }

    std::cerr << "usage: quenda-lock-helper hold|start" << std::endl;
    return 2;
}
