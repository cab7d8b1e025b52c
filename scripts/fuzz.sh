#!/usr/bin/env bash
# Runs the fuzz targets for a long time, one after the other, niced, and prints how many
# inputs each tried. New inputs that reach new code go to each target's working corpus in
# the build folder; a crash, leak, timeout or sanitizer report leaves its input next to it
# and stops the run with a failure.
#
#   bash scripts/fuzz.sh [SECONDS_PER_TARGET] [TARGET...]     # default: 3600 s, all five
#
# FUZZ_RUNS=N stops a target after N inputs if that comes first (e.g. 10000000).
#
# Targets: quenda_fuzz_state quenda_fuzz_options quenda_fuzz_wav quenda_fuzz_aiff quenda_fuzz_flac
# quenda_fuzz_hostile (call sequences of a careless host through the built Quenda.so)
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-3600}
[ $# -gt 0 ] && shift
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(quenda_fuzz_state quenda_fuzz_options quenda_fuzz_wav quenda_fuzz_aiff quenda_fuzz_flac quenda_fuzz_hostile)

# The same configuration as the sanitizer stage of scripts/test.sh, so the two share a build
# (lld and undefined sanitizer symbols: the hostile-host target loads the instrumented plug-in).
build=build-sanitize
bash scripts/build.sh "$build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld -DCMAKE_SHARED_LINKER_FLAGS=-fuse-ld=lld \
    -DCMAKE_MODULE_LINKER_FLAGS=-fuse-ld=lld -DCMAKE_CXX_STANDARD_LIBRARIES=-Wl,-z,undefs \
    -DQUENDA_SANITIZE=ON -DQUENDA_FUZZ=ON -DQUENDA_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DQUENDA_WARNINGS_AS_ERRORS=ON -- "${targets[@]}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

for target in "${targets[@]}"; do
    folder=$build/tests/fuzz
    seeds=tests/fuzz/corpus/${target#quenda_fuzz_}
    log=$folder/$target.log
    mkdir -p "$folder/$target-corpus"
    echo "fuzz: $target for $seconds s (log: $log)"

    # A call sequence may prepare the plug-in several times: it gets longer per input.
    limits="-timeout=10 -rss_limit_mb=2048"
    [ "$target" = quenda_fuzz_hostile ] && limits="-timeout=60 -rss_limit_mb=4096"

    if ! nice -n 10 "$folder/$target" -runs="${FUZZ_RUNS:--1}" -max_total_time="$seconds" $limits \
            -print_final_stats=1 -artifact_prefix="$folder/$target-" "$folder/$target-corpus" "$seeds" > "$log" 2>&1; then
        echo "fuzz: $target FOUND A PROBLEM:"
        grep -A30 "ERROR\|==[0-9]*==\|deadly signal\|runtime error" "$log" | head -n 60
        exit 1
    fi

    grep -E "stat::number_of_executed_units|stat::peak_rss_mb|stat::new_units_added" "$log" | sed "s/^/fuzz: $target: /"
done
