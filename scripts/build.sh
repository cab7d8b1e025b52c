#!/usr/bin/env bash
# Configures and builds one build tree. Usage: build.sh BUILD_DIR [extra cmake args...] [-- targets...]
set -euo pipefail
cd "$(dirname "$0")/.."

build_dir=$1; shift
cmake_args=()
targets=()
while [ $# -gt 0 ]; do
    if [ "$1" = "--" ]; then shift; targets=("$@"); break; fi
    cmake_args+=("$1"); shift
done

cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Release "${cmake_args[@]}" >/dev/null
if [ ${#targets[@]} -gt 0 ]; then
    cmake --build "$build_dir" --parallel "$(nproc)" --target "${targets[@]}"
else
    cmake --build "$build_dir" --parallel "$(nproc)"
fi
