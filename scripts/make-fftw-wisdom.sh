#!/usr/bin/env bash
# Measures the streaming FFT plans on this machine and rewrites dsp/FftwWisdom.cpp.
# Run on an idle machine of the kind the releases are built on, then commit the file.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh build -DQUENDA_BUILD_BENCH=ON -- quenda_make_wisdom
./build/bench/quenda_make_wisdom dsp/FftwWisdom.cpp
