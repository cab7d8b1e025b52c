#!/usr/bin/env bash
# Faults in the middle of a render: each must end with its exit status and message, leave no
# output or temporary file behind, and never write to the input.
#   bash tests/cli/faults.sh PATH/TO/quenda-render
set -uo pipefail

render=${1:?usage: faults.sh PATH/TO/quenda-render}
work=$(mktemp -d /tmp/quenda-faults.XXXXXX)
trap 'rm -rf "$work"' EXIT
failures=0

# 20 s of stereo noise at 48 kHz, 16-bit; rendered in 1-sample linear-phase blocks it takes
# long enough for every fault to land mid-render.
make_wav () {
    python3 - "$1" "$2" <<'PY'
import os, struct, sys, random
path, seed = sys.argv[1], int(sys.argv[2])
frames = 48000 * 20
random.seed(seed)
data = random.randbytes(frames * 4)
header = b'RIFF' + struct.pack('<I', 36 + len(data)) + b'WAVEfmt ' + struct.pack('<IHHIIHH', 16, 1, 2, 48000, 48000 * 4, 4, 16)
open(path, 'wb').write(header + b'data' + struct.pack('<I', len(data)) + data)
PY
}

make_wav "$work/original.wav" 1
make_wav "$work/other.wav" 2
slow=(--lin-phase --tilt 0.5 --block-size 1 -q)

# Waits until the render's temporary file (".out.wav.XXXXXX") holds data: writing is under way.
wait_for_temp () {
    for _ in $(seq 1 1000); do
        for temp in "$1"/.out.wav.*; do
            [ -s "$temp" ] && return 0
        done
        kill -0 "$2" 2> /dev/null || return 1
        sleep 0.01
    done
    return 1
}

# Checks the case the loop below is at, given the render's exit status.
check () {
    local status=$1 problems=()
    [ "$status" -eq "$expected_status" ] || problems+=("exit status $status, expected $expected_status")
    grep -q -- "$pattern" "$err" || problems+=("message does not match '$pattern'")
    [ -z "$(ls -A "$dir/out" 2> /dev/null)" ] || problems+=("left behind: $(ls -A "$dir/out" | tr '\n' ' ')")
    cmp -s "$dir/in.wav" "$dir/expected-input.wav" || problems+=("the input file was changed by the renderer")

    if [ ${#problems[@]} -eq 0 ]; then
        echo "ok    $name"
    else
        echo "FAIL  $name: ${problems[*]}"
        sed 's/^/      stderr: /' "$err"
        failures=$((failures + 1))
    fi
}

# name | expected status | message pattern | what happens during the render
cases=(
    "file size limit|5|writing '.*/out.wav' failed: File too large|ulimit"
    "output folder removed|5|writing '.*/out.wav' failed: .* was removed during the render|remove-folder"
    "input truncated|4|is truncated|truncate"
    "input rewritten in place|3|changed while it was being read|rewrite"
    "input replaced by rename|3|changed while it was being read|rename"
    "SIGINT|130|interrupted (SIGINT)|SIGINT"
    "SIGTERM|143|terminated (SIGTERM)|SIGTERM"
)

for entry in "${cases[@]}"; do
    IFS='|' read -r name expected_status pattern action <<< "$entry"
    dir=$work/case err=$work/case/stderr
    rm -rf "$dir" && mkdir -p "$dir/out"
    cp "$work/original.wav" "$dir/in.wav" && cp "$work/original.wav" "$dir/expected-input.wav"

    if [ "$action" = ulimit ]; then
        # 256 KiB: the limit is reached a second or so into the output.
        (ulimit -f 256; exec "$render" "${slow[@]}" "$dir/in.wav" "$dir/out/out.wav") 2> "$err"
        check $?
        continue
    fi

    # Signals start at their default action, as in an interactive shell, not ignored as in
    # a background job of a script.
    env --default-signal=INT,TERM "$render" "${slow[@]}" "$dir/in.wav" "$dir/out/out.wav" 2> "$err" &
    pid=$!

    if ! wait_for_temp "$dir/out" $pid; then
        wait $pid
        echo "FAIL  $name: the render ended (status $?) before the fault could be injected"
        failures=$((failures + 1))
        continue
    fi

    case $action in
        remove-folder) rm -rf "$dir/out" ;;
        truncate)      truncate -s 100000 "$dir/in.wav"; truncate -s 100000 "$dir/expected-input.wav" ;;
        rewrite)       dd if="$work/other.wav" of="$dir/in.wav" conv=notrunc status=none; cp "$work/other.wav" "$dir/expected-input.wav" ;;
        rename)        cp "$work/other.wav" "$dir/next.wav"; mv "$dir/next.wav" "$dir/in.wav"
                       cp "$work/other.wav" "$dir/expected-input.wav" ;;
        SIGINT)        kill -INT $pid ;;
        SIGTERM)       kill -TERM $pid ;;
    esac

    wait $pid
    check $?
done

# A batch interrupted while two jobs write: every job's temporary file goes, the input stays.
name="SIGINT during a batch of two jobs" expected_status=130 pattern="interrupted (SIGINT)"
dir=$work/case err=$work/case/stderr
rm -rf "$dir" && mkdir -p "$dir/out"
cp "$work/original.wav" "$dir/in.wav" && cp "$work/original.wav" "$dir/expected-input.wav"
cp "$work/other.wav" "$dir/second.wav"
env --default-signal=INT "$render" "${slow[@]}" -j 2 "$dir/in.wav" "$dir/second.wav" -o "$dir/out" 2> "$err" &
pid=$!
for _ in $(seq 1 1000); do
    [ "$(find "$dir/out" -name '.*.wav.*' -size +0 | wc -l)" -ge 2 ] && break
    sleep 0.01
done
kill -INT $pid
wait $pid
check $?
cases+=("$name")

# A render killed outright leaves its temporary file; the next render of the same output
# removes it, but not one whose process is still running.
name="temporary file of a killed render"
dir=$work/killed && mkdir -p "$dir/out"
"$render" "${slow[@]}" "$work/original.wav" "$dir/out/out.wav" 2> /dev/null &
pid=$!
if wait_for_temp "$dir/out" $pid; then
    kill -KILL $pid; wait $pid 2> /dev/null
    left=$(ls -A "$dir/out")
    touch "$dir/out/.out.wav.$$.abcdef"
    "$render" -q "$work/original.wav" "$dir/out/out.wav"
    remaining=$(ls -A "$dir/out" | tr '\n' ' ')
    if [ -n "$left" ] && [ "$remaining" = ".out.wav.$$.abcdef out.wav " ]; then
        echo "ok    $name"
    else
        echo "FAIL  $name: left '$left', then after a new render: $remaining"
        failures=$((failures + 1))
    fi
else
    echo "FAIL  $name: the render ended before it could be killed"
    failures=$((failures + 1))
fi
cases+=("$name")

[ $failures -eq 0 ] && echo "all ${#cases[@]} fault cases passed" || echo "$failures of ${#cases[@]} fault cases failed"
[ $failures -eq 0 ]
