# Sourced by the Windows test scripts: Wine with no Mono or Gecko prompts, on a private Xvfb
# display (Wine needs one to create the plug-in's hidden message window). Set WINEPREFIX first;
# WINE_DISPLAY_CLEANUP names extra cleanup to run when the script exits.
export WINEARCH=win64 WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml="

display_file=$(mktemp)
Xvfb -displayfd 3 -screen 0 1024x768x24 -nolisten tcp 3>"$display_file" >/dev/null 2>&1 &
xvfb_pid=$!
cleanup() { wineserver -k 2>/dev/null || true; kill "$xvfb_pid" 2>/dev/null || true; rm -f "$display_file"; ${WINE_DISPLAY_CLEANUP:-true}; }
trap cleanup EXIT
for _ in $(seq 50); do [ -s "$display_file" ] && break; sleep 0.1; done
export DISPLAY=:$(cat "$display_file")
