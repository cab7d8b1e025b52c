#!/usr/bin/env bash
# The standalone app where there is no display, and where there is one but no audio device.
# Usage: standalone.sh PATH/TO/Quenda
set -uo pipefail
app=$1
work=$(mktemp -d)
xvfb_pid=
app_pid=
cleanup()
{
    [ -n "$app_pid" ] && kill "$app_pid" 2>/dev/null
    [ -n "$xvfb_pid" ] && kill "$xvfb_pid" 2>/dev/null
    wait 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

# No X server: a message and a plain failure, not a crash. JUCE tries :0 when DISPLAY is
# unset, so that case is only meaningful where no :0 server runs.
no_display()
{
    HOME=$work timeout 60 "$@" "$app" >"$work/out" 2>&1
    local rc=$?
    [ "$rc" -ne 0 ] && [ "$rc" -lt 124 ] || fail "exit status $rc without a display: $(cat "$work/out")"
    grep -q "cannot open a display" "$work/out" || fail "no message without a display: $(cat "$work/out")"
}
[ -e /tmp/.X11-unix/X0 ] || no_display env -u DISPLAY
no_display env DISPLAY=:97531
echo "without a display: ok"

if ! command -v Xvfb >/dev/null || ! command -v xwininfo >/dev/null; then
    echo "Xvfb or xwininfo missing (scripts/setup.sh installs them): the window's no-device case is skipped"
    exit 77
fi

# A display, and an ALSA with no devices: the window's title says so.
exec 3>"$work/display"
Xvfb -displayfd 3 -screen 0 1024x768x24 -nolisten tcp >/dev/null 2>&1 &
xvfb_pid=$!
for _ in $(seq 100); do [ -s "$work/display" ] && break; sleep 0.1; done
[ -s "$work/display" ] || fail "Xvfb did not start"
display=":$(head -n1 "$work/display")"

: >"$work/empty-alsa.conf"
DISPLAY=$display HOME=$work ALSA_CONFIG_PATH=$work/empty-alsa.conf "$app" >"$work/app.log" 2>&1 &
app_pid=$!
for _ in $(seq 300); do
    if DISPLAY=$display xwininfo -root -tree 2>/dev/null | grep -q '"Quenda - no audio device'; then
        echo "no audio device shown in the window: ok"
        exit 0
    fi
    kill -0 "$app_pid" 2>/dev/null || fail "the app ended under Xvfb: $(cat "$work/app.log")"
    sleep 0.1
done
fail "no window titled 'Quenda - no audio device': $(DISPLAY=$display xwininfo -root -tree 2>&1 | grep -i quenda)"
