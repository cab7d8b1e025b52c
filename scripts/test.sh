#!/usr/bin/env bash
# Sets up, builds and runs every test: a plain Release build, then the same tests under
# AddressSanitizer and UndefinedBehaviorSanitizer, then the Windows build under Wine.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

bash scripts/build.sh build -DQUENDA_BUILD_BENCH=ON -DQUENDA_WARNINGS_AS_ERRORS=ON
ctest --test-dir build --output-on-failure --timeout 600

bash scripts/build.sh build-sanitize -DQUENDA_SANITIZE=ON -DQUENDA_BUILD_BENCH=OFF -DQUENDA_WARNINGS_AS_ERRORS=ON \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir build-sanitize --output-on-failure --timeout 900

# Quenda.dll for Windows, cross-built with MinGW-w64, and its host-level tests under Wine.
bash scripts/test-windows.sh build-windows
