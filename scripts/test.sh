#!/usr/bin/env bash
# Sets up, builds and runs every test, stage by stage; each stage prints its time, and a
# summary follows the last one.
#
#   bash scripts/test.sh [STAGE...]     # default: all stages, in this order
#
# Stages:
#   format      scripts/format.sh --check
#   unit        a Release build with warnings as errors; the unit, renderer (cli), VST2 host
#               and concurrency tests (ctest -LE "formats|pluginval")
#   sanitizers  the same tests built by clang, warnings as errors, under AddressSanitizer and
#               UndefinedBehaviorSanitizer, together with short fuzz runs
#   tsan        the concurrency test under ThreadSanitizer
#   formats     the VST3 and LV2 builds through JUCE's hosting code and the LV2 one through its C
#               interface, the LV2 TTL, Ardour and Audacity (skipped where absent), and pluginval
#               on every format (skipped where the shared tools are absent)
#   package     the Debian package from the unit build, lintian, then installed, run, validated
#               and removed in a clean bookworm root (scripts/deb.sh)
#   windows     Quenda.dll and Quenda.vst3 cross-built with MinGW-w64, their host-level tests
#               and pluginval under Wine, then the installer and zip, installed silently into a
#               fresh Wine prefix, tested there and uninstalled
#
# The fast loop while working: bash scripts/build.sh build -- quenda_dsp_tests quenda_plugin_tests
# quenda_realtime_tests quenda_platform_tests, then ctest --test-dir build -L unit.
set -euo pipefail
cd "$(dirname "$0")/.."

all_stages=(format unit sanitizers tsan formats package windows)
stages=("$@")
[ ${#stages[@]} -gt 0 ] || stages=("${all_stages[@]}")

for stage in "${stages[@]}"; do
    if [[ ! " ${all_stages[*]} " =~ " $stage " ]]; then
        echo "test: unknown stage '$stage' (stages: ${all_stages[*]})" >&2
        exit 2
    fi
done

bash scripts/setup.sh

# clang, so that the same build also makes the libFuzzer targets (scripts/fuzz.sh runs them long).
# lld links the instrumented plug-ins in a second where GNU ld takes over ten minutes. A
# plug-in gets the sanitizer runtime from the program that loads it, so its sanitizer symbols
# stay undefined: "-z undefs", last on the line, overrides JUCE's --no-undefined.
sanitizer_build=(build-sanitize -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
    -DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld -DCMAKE_SHARED_LINKER_FLAGS=-fuse-ld=lld
    -DCMAKE_MODULE_LINKER_FLAGS=-fuse-ld=lld -DCMAKE_CXX_STANDARD_LIBRARIES=-Wl,-z,undefs
    -DQUENDA_SANITIZE=ON -DQUENDA_FUZZ=ON -DQUENDA_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo
    -DQUENDA_WARNINGS_AS_ERRORS=ON)

# Each step of a stage joined by &&: the function runs where set -e does not apply.
run_stage()
{
    case "$1" in
        format)
            bash scripts/format.sh --check ;;
        unit)
            bash scripts/build.sh build -DQUENDA_BUILD_BENCH=ON -DQUENDA_WARNINGS_AS_ERRORS=ON \
                && ctest --test-dir build --output-on-failure --timeout 600 -LE "formats|pluginval" ;;
        sanitizers)
            bash scripts/build.sh "${sanitizer_build[@]}" \
                && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
                ctest --test-dir build-sanitize --output-on-failure --timeout 900 ;;
        tsan)
            # Release, like the unit build: JUCE's objects are shared through the compiler cache.
            bash scripts/build.sh build-tsan -DQUENDA_TSAN=ON -DQUENDA_BUILD_BENCH=OFF -- quenda_concurrency_tests \
                && QUENDA_STRESS_SECONDS=20 ctest --test-dir build-tsan --output-on-failure --timeout 600 ;;
        formats)
            bash scripts/build.sh build -DQUENDA_BUILD_BENCH=ON -DQUENDA_WARNINGS_AS_ERRORS=ON \
                && ctest --test-dir build --output-on-failure --timeout 600 -L "formats|pluginval" ;;
        package)
            bash scripts/build.sh build -DQUENDA_BUILD_BENCH=ON -DQUENDA_WARNINGS_AS_ERRORS=ON \
                && bash scripts/deb.sh build ;;
        windows)
            # The installer reuses the Windows build's dependencies and objects.
            bash scripts/test-windows.sh build-windows \
                && bash scripts/windows-package.sh build-windows \
                && bash scripts/test-windows-installer.sh build-windows ;;
    esac
}

# Every stage runs even after one fails, so that one run shows everything; the exit status
# is the first failure's.
summary=()
first_failure=0
for stage in "${stages[@]}"; do
    echo "=== stage $stage"
    started=$(date +%s)
    status=0
    run_stage "$stage" || status=$?
    seconds=$(( $(date +%s) - started ))
    result=$([ $status -eq 0 ] && echo passed || echo "FAILED ($status)")
    echo "=== stage $stage: $result in ${seconds} s"
    summary+=("$(printf '%-11s %-12s %5d s' "$stage" "$result" "$seconds")")
    [ $status -eq 0 ] || [ $first_failure -ne 0 ] || first_failure=$status
done

printf '%s\n' "${summary[@]}"
exit $first_failure
