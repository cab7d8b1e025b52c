#!/usr/bin/env bash
# Builds Quenda and runs it beside LSP's Parametric Equalizer x16 Stereo (FIR mode, three
# bands) through the same raw VST2 host, interleaved, at blocks of 32 ... 4096 samples.
# Installs the peer (Debian's lsp-plugins-vst) itself; the tests never need it.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
if ! dpkg-query -W -f='${Status}' lsp-plugins-vst 2>/dev/null | grep -q "install ok installed"; then
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends lsp-plugins-vst >/dev/null
fi

bash scripts/build.sh build -DQUENDA_BUILD_BENCH=ON -- quenda_peer_bench
./build/bench/quenda_peer_bench --benchmark_counters_tabular=true "$@"
