#!/usr/bin/env bash
# Sets up, builds and runs every test: a plain Release build with warnings as errors (with
# pluginval on every plug-in format, skipped where the shared tools are absent, and the
# renderer's fault cases), the same tests built by clang under AddressSanitizer and
# UndefinedBehaviorSanitizer together with short fuzz runs, the concurrency test under
# ThreadSanitizer, then the Windows build and its host-level tests under Wine; the Debian
# package and the Windows installer, each proven by installing it.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

bash scripts/build.sh build -DQUENDA_BUILD_BENCH=ON -DQUENDA_WARNINGS_AS_ERRORS=ON
ctest --test-dir build --output-on-failure --timeout 600

# ---- Debian package (issue 21): quenda_<version>_amd64.deb from the build just tested, lintian,
# then installed, run, validated and removed in a clean bookworm root (scripts/deb.sh).
deb_started=$(date +%s)
bash scripts/deb.sh build
echo "test: Debian package stage took $(( $(date +%s) - deb_started )) s"
# ---- end of the Debian package stage

# clang, so that the same build also makes the libFuzzer targets (scripts/fuzz.sh runs them long).
# lld links the instrumented plug-ins in a second where GNU ld takes over ten minutes. A
# plug-in gets the sanitizer runtime from the program that loads it, so its sanitizer symbols
# stay undefined: "-z undefs", last on the line, overrides JUCE's --no-undefined.
bash scripts/build.sh build-sanitize -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld -DCMAKE_SHARED_LINKER_FLAGS=-fuse-ld=lld \
    -DCMAKE_MODULE_LINKER_FLAGS=-fuse-ld=lld -DCMAKE_CXX_STANDARD_LIBRARIES=-Wl,-z,undefs \
    -DQUENDA_SANITIZE=ON -DQUENDA_FUZZ=ON -DQUENDA_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir build-sanitize --output-on-failure --timeout 900

# Release, like the first build: JUCE's objects are shared through the compiler cache.
bash scripts/build.sh build-tsan -DQUENDA_TSAN=ON -DQUENDA_BUILD_BENCH=OFF -- quenda_concurrency_tests
QUENDA_STRESS_SECONDS=20 ctest --test-dir build-tsan --output-on-failure --timeout 600

# Quenda.dll and Quenda.vst3 for Windows, cross-built with MinGW-w64, and their host-level
# tests under Wine.
bash scripts/test-windows.sh build-windows

# ---- Windows installer and zip (issue 21): made from the build above (its dependencies and
# objects are reused), installed silently into a fresh Wine prefix, tested there, uninstalled.
installer_started=$(date +%s)
bash scripts/windows-package.sh build-windows
bash scripts/test-windows-installer.sh build-windows
echo "test: Windows installer stage took $(( $(date +%s) - installer_started )) s"
# ---- end of the Windows installer stage
