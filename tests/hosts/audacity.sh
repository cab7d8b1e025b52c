#!/usr/bin/env bash
# Quenda's VST2 or LV2 build in Audacity 3.2, headless (Xvfb, driven through mod-script-pipe):
# a 48 kHz stereo file imported, Quenda applied from a saved user preset (linear phase, every
# stage in use), the result exported as 32-bit float WAV. The export must equal quenda-render's
# output of the same file with the same saved state, sample for sample from sample 0.
#
#   bash tests/hosts/audacity.sh VST2 Quenda.so QUENDA_RENDER
#   bash tests/hosts/audacity.sh LV2 Quenda.lv2 QUENDA_RENDER
#
# QUENDA_KEEP=1 keeps the work folder: Audacity's configuration and log, the state, the files.
# Audacity removes the VST2 build's reported latency itself. Audacity 3.2.4 never reads an LV2
# plug-in's latency (it connects the latency port to its own variable, then again to a slot of
# its settings, where the plug-in writes it), so the LV2 export keeps the delay, as
# quenda-render --no-latency-compensation does.
#
# Exit status 0 pass, 1 fail, 77 skipped (Audacity or Xvfb is not installed).
set -uo pipefail

usage="usage: audacity.sh VST2|LV2 PLUGIN QUENDA_RENDER"
format=${1:?$usage}
plugin=$(realpath "${2:?$usage}")
render=$(realpath "${3:?$usage}")
name="audacity $format"
began=$(date +%s.%N)

for tool in audacity Xvfb; do
    if ! command -v $tool > /dev/null; then
        echo "$name: skipped: $tool is not installed (Debian packages audacity and xvfb; scripts/setup.sh installs them)"
        exit 77
    fi
done
module=/usr/lib/audacity/modules/mod-script-pipe.so
if [ ! -f $module ]; then
    echo "$name: skipped: $module is missing"
    exit 77
fi

work=$(mktemp -d /tmp/quenda-audacity.XXXXXX)
audacity_pid=
xvfb_pid=
# Ends a process of ours: asked first, killed after 10 s.
end () {
    kill "$1" 2> /dev/null
    for _ in $(seq 100); do
        kill -0 "$1" 2> /dev/null || break
        sleep 0.1
    done
    kill -9 "$1" 2> /dev/null
    wait "$1" 2> /dev/null
}
stop () {
    if [ -n "$audacity_pid" ]; then
        pkill -P "$audacity_pid" 2> /dev/null   # a plug-in scan it may still run
        end "$audacity_pid"
        audacity_pid=
    fi
}
finish () {
    stop
    [ -n "$xvfb_pid" ] && end "$xvfb_pid"
    if [ -n "${QUENDA_KEEP:-}" ]; then echo "$name: kept $work"; else rm -rf "$work"; fi
}
trap finish EXIT
trap 'exit 1' INT TERM HUP
fail () {
    {
        echo "$name: FAILED: $*"
        [ -f "$work/audacity.log" ] && grep -v "^$\|Gdk-CRITICAL" "$work/audacity.log" | tail -20
    } >&2
    exit 1
}

# The pipes are named after the user alone: one Audacity of ours at a time.
lock=/tmp/quenda-audacity.$(id -u).lock
exec 9> "$lock"
flock -w 600 9 || fail "another run holds $lock"
to_pipe=/tmp/audacity_script_pipe.to.$(id -u)
from_pipe=/tmp/audacity_script_pipe.from.$(id -u)

# A home of its own, with only this format's Quenda in reach: both builds call their effect
# "Quenda". The configuration enables mod-script-pipe (its entry must carry the module file's
# date) and names this version and a private temporary folder, so that no welcome screen,
# upgrade notice or recovery of an earlier session stands in the way. WAV exports are float.
export HOME=$work/home
config=$HOME/.config/audacity
mkdir -p "$config" "$work/temp" "$HOME/.vst" "$HOME/.lv2"
case $format in
    VST2)
        family=VST
        ln -s "$plugin" "$HOME/.vst/Quenda.so"
        export VST_PATH=$HOME/.vst LV2_PATH=$work/none
        ;;
    LV2)
        family=LV2
        ln -s "$plugin" "$HOME/.lv2/Quenda.lv2"
        export LV2_PATH=$HOME/.lv2 VST_PATH=$work/none
        ;;
    *) fail "unknown format $format ($usage)" ;;
esac

write_config () {
    cat > "$config/audacity.cfg" << EOF
PrefsVersion=1.1.1r1
[Version]
Major=3
Minor=2
Micro=4
[Directories]
TempDir=$work/temp
[GUI]
ShowSplashScreen=0
[Module]
mod-script-pipe=1
[ModulePath]
mod-script-pipe=$module
[ModuleDateTime]
mod-script-pipe=$(date -r $module +%Y-%m-%dT%H:%M:%S)
[FileFormats]
[FileFormats/ExportFormat_SF1_Type]
WAV_10000=6
EOF
}
write_config

exec {display_fd}> "$work/display"
Xvfb -displayfd $display_fd -nolisten tcp -screen 0 1280x1024x24 > "$work/xvfb.log" 2>&1 &
xvfb_pid=$!
exec {display_fd}>&-
for _ in $(seq 100); do
    [ -s "$work/display" ] && break
    sleep 0.1
done
[ -s "$work/display" ] || fail "Xvfb did not start: $(cat "$work/xvfb.log")"
export DISPLAY=:$(head -n 1 "$work/display")

start () {
    rm -f "$to_pipe" "$from_pipe"
    audacity > "$work/audacity.log" 2>&1 &
    audacity_pid=$!
    for _ in $(seq 600); do
        [ -p "$to_pipe" ] && [ -p "$from_pipe" ] && return 0
        kill -0 "$audacity_pid" 2> /dev/null || fail "Audacity ended at start"
        sleep 0.1
    done
    fail "Audacity made no script pipes in 60 s"
}

# Read-write opens never block, whether or not Audacity has opened its ends yet. Both stay
# open for the whole session: the module's server stops for good at the first end of file.
connect () {
    exec 3<> "$to_pipe" 4<> "$from_pipe"
}

# The first command after a start can go unanswered: until Audacity echoes a marker, keep
# sending new ones (a late echo of an earlier marker is passed over).
sync_pipe () {
    local attempt line
    for attempt in $(seq 60); do
        printf 'Message: Text=quenda-ready-%s\n' "$attempt" >&3
        while IFS= read -r -t 1 -u 4 line; do
            [ "$line" = "quenda-ready-$attempt" ] || continue
            IFS= read -r -t 10 -u 4 line && IFS= read -r -t 10 -u 4 line && return 0
        done
    done
    fail "Audacity did not answer through the script pipe in 60 s"
}

# Sends one command and waits for its reply; fails unless that ends "BatchCommand finished: OK".
# Replies are separated by empty lines, and one may come before the first reply.
ask () {
    local line reply=
    printf '%s\n' "$1" >&3 || fail "cannot write to the script pipe"
    while IFS= read -r -t 120 -u 4 line; do
        if [ -n "$line" ]; then
            reply+=$line$'\n'
        elif [ -n "$reply" ]; then
            [[ $reply == *"BatchCommand finished: OK"* ]] || fail "\"$1\" answered: $reply"
            return 0
        fi
    done
    fail "\"$1\" got no complete reply in 120 s: $reply"
}

# A first start finds Quenda and registers it in a child process that loads the script module
# as well, replacing the pipes with its own and leaving them dead when it ends. The work is
# done in a second start, which finds nothing new. The first is stopped, not closed, so its
# project must not be offered for recovery: a fresh configuration and temporary folder.
start
for _ in $(seq 600); do
    grep -q "^Name=Quenda$" "$config/pluginregistry.cfg" 2> /dev/null && ! pgrep -P "$audacity_pid" > /dev/null && break
    sleep 0.1
done
grep -q "^Name=Quenda$" "$config/pluginregistry.cfg" 2> /dev/null || fail "Audacity did not register Quenda in 60 s"
stop
write_config
rm -rf "${work:?}/temp"/*

# The saved state, and Audacity's user preset made from it: the VST2 build's chunk is that
# very state block; LV2 settings are port values, keyed by port name.
"$render" -q --tilt 0.6 --lin-phase --low 3 --low-freq 120 --high -1.5 --high-freq 8000 --trim -2 \
    --save-preset "$work/state.bin" || fail "quenda-render could not save the state"
id=$(printf 'Effect_%s_Selvane_Quenda' "$family" | base64 -w 0 | sed 's/=/\\=/g')
{
    echo "[pluginsettings/base64\\:$id/private/UserPresets/quenda-test]"
    if [ "$format" = VST2 ]; then
        echo "UniqueID=1366189153"
        echo "Version=65792"
        echo "Elements=8"
        echo "Chunk=$(base64 -w 0 "$work/state.bin")"
    else
        values=$(grep -a -o '[a-z_]*="[^"]*"' "$work/state.bin" | sed 's/^bypass=/Bypass=/; s/^lin_phase=/linear_phase=/' | tr '\n' ' ')
        echo "Parameters=Enabled=\"1\" $values"
    fi
} >> "$config/pluginsettings.cfg"

sox -R -n -r 48000 -c 2 -b 32 -e floating-point "$work/input.wav" synth 3 sine 40:16000 pinknoise gain -8 \
    || fail "sox could not make the input"

start
connect
sync_pipe
ask "Import2: Filename=$work/input.wav"
ask "SelectAll:"
ask "Quenda: Use_Preset=\"User Preset:quenda-test\""
ask "Export2: Filename=$work/audacity.wav NumChannels=2"
stop

keep_delay=()
[ "$format" = LV2 ] && keep_delay=(--no-latency-compensation)
"$render" -q --preset "$work/state.bin" "${keep_delay[@]}" "$work/input.wav" "$work/expected.wav" \
    || fail "quenda-render could not render the input"

# Float WAVs compared frame by frame. The tolerance is four float steps at the peak (about
# 0.6): Audacity's blocks (8192 samples, then 3249 after the latency) split the convolution
# differently from quenda-render's 512, as quenda-render's own --block-size 8192 does.
python3 - "$work/audacity.wav" "$work/expected.wav" "$name" << 'PY' || fail "the export differs from quenda-render's output"
import array, struct, sys

def read (path):
    data = open (path, "rb").read()
    if data[:4] != b"RIFF" or data[8:12] != b"WAVE":
        sys.exit (f"{path}: not a WAV file")
    position, fmt, samples = 12, None, None
    while position + 8 <= len (data):
        chunk, size = data[position:position + 4], struct.unpack ("<I", data[position + 4:position + 8])[0]
        body = data[position + 8:position + 8 + size]
        if chunk == b"fmt ":
            fmt = struct.unpack ("<HHIIHH", body[:16])
        elif chunk == b"data":
            samples = array.array ("f", body)
        position += 8 + size + (size & 1)
    if fmt is None or samples is None or fmt[0] not in (3, 0xfffe) or fmt[5] != 32:
        sys.exit (f"{path}: not 32-bit float WAV ({fmt})")
    return fmt[1], fmt[2], samples

exported, expected, name = sys.argv[1], sys.argv[2], sys.argv[3]
(channels, rate, got), (wantChannels, wantRate, want) = read (exported), read (expected)
if (channels, rate, len (got)) != (wantChannels, wantRate, len (want)):
    sys.exit (f"{name}: export has {channels} channels at {rate} Hz, {len (got)} samples; expected {wantChannels}, {wantRate}, {len (want)}")
worst, where = max ((abs (a - b), i) for i, (a, b) in enumerate (zip (got, want)))
peak = max (abs (v) for v in want)
print (f"{name}: {len (want) // channels} frames at {rate} Hz, peak {peak:.3f}: largest difference {worst:.3g} at frame {where // channels}, channel {where % channels}")
if worst > 2.4e-7:
    sys.exit (f"{name}: frame {where // channels}, channel {where % channels}: exported {got[where]!r}, quenda-render {want[where]!r}")
PY

echo "$name: passed in $(awk -v began="$began" -v now="$(date +%s.%N)" 'BEGIN { printf "%.1f", now - began }') s"
