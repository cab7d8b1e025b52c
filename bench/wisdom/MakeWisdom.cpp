// SPDX-License-Identifier: GPL-3.0-or-later
// Measures the streaming transforms' plans and writes them as the wisdom the library ships.
// Run on the build machine by scripts/make-fftw-wisdom.sh; commit the file it writes.
#include "dsp/AudioFFT.h"

#include <cstdio>
#include <fstream>

int main (int argc, char** argv)
{
    if (argc != 2)
    {
        std::fprintf (stderr, "usage: %s OUTPUT.cpp\n", argv[0]);
        return 2;
    }

    audiofft::measureStreamingPlans();

    for (int size : audiofft::streamingSizes)
    {
        audiofft::SplitRealFft real;
        real.init (size);
        audiofft::SplitComplexFft complex;
        complex.init (size);
    }

    const auto wisdom = audiofft::exportWisdom();

    if (wisdom.empty() || wisdom.find (')') == std::string::npos)
    {
        std::fprintf (stderr, "FFTW exported no wisdom\n");
        return 1;
    }

    std::ofstream out (argv[1]);
    out << "// SPDX-License-Identifier: GPL-3.0-or-later\n"
           "// FFTW wisdom for the streaming transforms, written by bench/wisdom/MakeWisdom.cpp\n"
           "// (scripts/make-fftw-wisdom.sh). Do not edit by hand.\n"
           "namespace audiofft\n{\n"
           "extern const char* const shippedWisdom;\n"
           "const char* const shippedWisdom = R\"wisdom("
        << wisdom << ")wisdom\";\n"
                     "}\n";

    if (! out.good())
    {
        std::fprintf (stderr, "cannot write %s\n", argv[1]);
        return 1;
    }

    std::printf ("%zu bytes of wisdom written to %s\n", wisdom.size(), argv[1]);
    return 0;
}
