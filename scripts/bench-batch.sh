#!/usr/bin/env bash
# Batch throughput of quenda-render: the same 16 one-minute stereo 48 kHz 16-bit files rendered
# one at a time (-j 1) and two at a time (-j 2), timed by hyperfine.
#   bash scripts/bench-batch.sh [PATH/TO/quenda-render]
set -euo pipefail

render=$(realpath "${1:-build/cli/quenda-render}")
work=$(mktemp -d /tmp/quenda-batch.XXXXXX)
trap 'rm -rf "$work"' EXIT
cd "$work"

for i in $(seq -w 1 16); do
    sox -q -n -r 48000 -c 2 -b 16 "in$i.wav" synth 60 pinknoise vol 0.3
done

settings=(--tilt 0.5 --lin-phase -q -y)
echo "load before: $(cut -d' ' -f1-3 /proc/loadavg)"
hyperfine --warmup 1 --runs "${RUNS:-5}" --export-markdown "$work/result.md" \
    "$render ${settings[*]} -j 1 -o one in*.wav" \
    "$render ${settings[*]} -j 2 -o two in*.wav"
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
cat "$work/result.md"
