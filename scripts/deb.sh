#!/usr/bin/env bash
# Builds quenda_<version>_amd64.deb and proves it the way a user gets it: lintian without
# errors, then in a clean Debian root made by mmdebstrap from this machine's archive,
# `apt-get install ./quenda_*.deb` resolves every dependency, the installed quenda-render
# renders its demo, pluginval at strictness 10 passes on the installed VST3 and LV2 (the
# settings of scripts/pluginval.sh), and `apt-get remove quenda` leaves none of its files.
#
#   bash scripts/deb.sh [BUILD_DIR]        # default build (configured if new); as root
#
# Exit status: 0 proven, 1 a failure. DEB_SKIP_PROOF=1 stops after lintian (release builds
# on a machine without root or network). The package is left in BUILD_DIR/packages.
# PLUGINVAL_TOOLS names the shared pluginval folder when ../shared is elsewhere.
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
build=$(realpath -m "${1:-$repo/build}")
cd "$repo"

step () { echo "deb: $*"; }
fail () { echo "deb: FAILED: $*" >&2; exit 1; }

start=$(date +%s)
targets=(Quenda_VST Quenda_VST3 Quenda_LV2 Quenda_Standalone quenda-render quenda_compressed_docs)
if [ -f "$build/CMakeCache.txt" ]; then
    # A tested build (CI's first stage): package exactly what it built.
    grep -q '^QUENDA_USER_INSTALL:BOOL=ON' "$build/CMakeCache.txt" && fail "$build installs into a home folder"
    cmake --build "$build" --parallel "$(nproc)" --target "${targets[@]}"
else
    bash scripts/build.sh "$build" -DQUENDA_WARNINGS_AS_ERRORS=ON -DQUENDA_BUILD_BENCH=OFF -- "${targets[@]}"
fi
rm -rf "$build/packages"
(cd "$build" && cpack -G DEB > cpack.log 2>&1) || { cat "$build/cpack.log"; fail "cpack"; }
deb=$(ls "$build"/packages/quenda_*_amd64.deb)
step "$(basename "$deb"): $(stat -c %s "$deb") bytes, built in $(( $(date +%s) - start )) s"
step "Depends: $(dpkg-deb -f "$deb" Depends)"

# lintian refuses to run as root without this note; its tags go to the log and the console.
lintian --allow-root --fail-on error "$deb" 2>&1 | tee "$build/lintian.log" || fail "lintian reports errors"
[ "${DEB_SKIP_PROOF:-0}" = 1 ] && exit 0

root=$build/clean-root
mounted=()
cleanup () {
    for (( i = ${#mounted[@]} - 1; i >= 0; i-- )); do umount -l "${mounted[$i]}" 2> /dev/null || true; done
    # Never follow a mount left inside the root into the host's own folders.
    rm -rf --one-file-system "$root"
}
trap cleanup EXIT
cleanup

step "making a clean bookworm root"
mmdebstrap --quiet --variant=apt --mode=root bookworm "$root" /etc/apt/sources.list.d/debian.sources > "$build/mmdebstrap.log" 2>&1 \
    || { cat "$build/mmdebstrap.log"; fail "mmdebstrap"; }
for fs in proc dev dev/shm; do
    case $fs in
        proc) mount -t proc proc "$root/proc" ;;
        dev) mount --rbind /dev "$root/dev"; mount --make-rslave "$root/dev" ;;
        dev/shm) mount -t tmpfs shm "$root/dev/shm" ;;
    esac
    mounted+=("$root/$fs")
done
in_root () { chroot "$root" env DEBIAN_FRONTEND=noninteractive HOME=/root LC_ALL=C.UTF-8 "$@"; }

# mmdebstrap leaves no package lists and no resolver configuration behind.
cp /etc/resolv.conf "$root/etc/resolv.conf"
in_root apt-get update -qq > "$build/apt-update.log" 2>&1 || { cat "$build/apt-update.log"; fail "apt-get update"; }
cp "$deb" "$root/tmp/"
step "apt-get install ./$(basename "$deb")"
in_root apt-get install -y "/tmp/$(basename "$deb")" > "$build/apt-install.log" 2>&1 \
    || { tail -n 30 "$build/apt-install.log"; fail "apt-get install"; }
in_root dpkg -L quenda > "$build/quenda-files.txt"

step "installed: $(in_root quenda-render --version)"
in_root sh -c 'cd /tmp && quenda-render --demo demo -q' || fail "quenda-render --demo"
for f in demo-original.wav demo-processed.wav response.png; do
    [ -s "$root/tmp/demo/$f" ] || fail "the demo did not write $f"
done

# pluginval was built on this machine: its libraries (not Quenda's, those are proven above)
# and an X server for the editor tests come from the archive.
# The pluginval of scripts/pluginval.sh, with JUCE's LV2 host fix (scripts/build-pluginval.sh,
# which waits for a build of it already running).
tools=${PLUGINVAL_TOOLS:-$repo/../shared/tools/pluginval}
if [ -f "$tools/build.sh" ]; then
    pluginval=$(PLUGINVAL_TOOLS=$tools bash scripts/build-pluginval.sh) || fail "could not build pluginval"
    packages=$(ldd "$pluginval" | awk '/=> \// { print $3 }' | while read -r library; do
                   # Debian's usr-merge: dpkg may know the library by either path.
                   dpkg -S "$library" 2> /dev/null || dpkg -S "$(realpath "$library")" 2> /dev/null || true
               done | cut -d: -f1 | sort -u | tr '\n' ' ')
    in_root apt-get install -y --no-install-recommends xvfb xauth $packages > "$build/apt-tools.log" 2>&1 \
        || { tail -n 30 "$build/apt-tools.log"; fail "installing pluginval's libraries"; }
    mkdir -p "$root/opt/pluginval"
    cp "$pluginval" "$root/opt/pluginval/"
    source scripts/pluginval-settings.sh
    for target in VST3:/usr/lib/vst3/Quenda.vst3 LV2:urn:selvane:quenda; do
        format=${target%%:*}
        args=("${pluginval_settings[@]}")
        disabled=$(pluginval_disabled_for "$format" || true)
        [ -n "$disabled" ] && args+=(--disabled-tests "$disabled")
        log=$build/pluginval-installed-$format.log
        t0=$(date +%s)
        if in_root xvfb-run -a -s "-screen 0 1280x1024x24" /opt/pluginval/pluginval "${args[@]}" \
               --validate "${target#*:}" > "$log" 2>&1 && grep -q SUCCESS "$log"; then
            step "pluginval on the installed $format: passed in $(( $(date +%s) - t0 )) s"
        else
            grep -a -E '^(!!!|\*\*\*)' "$log" | sort | uniq -c | head -n 20
            fail "pluginval on the installed $format (log: $log)"
        fi
    done
else
    step "pluginval skipped: $tools/build.sh is absent"
fi

step "apt-get remove quenda"
in_root apt-get remove -y quenda > "$build/apt-remove.log" 2>&1 || { cat "$build/apt-remove.log"; fail "apt-get remove"; }
left=$(while read -r path; do
           [ -e "$root$path" ] && { [ -d "$root$path" ] && [ -n "$(ls -A "$root$path")" ] || echo "$path"; }
       done < "$build/quenda-files.txt"
       cd "$root" && find usr etc opt var/lib -xdev -iname '*quenda*' -not -path 'var/lib/dpkg/*' -not -path 'opt/pluginval*' | sed 's|^|/|')
[ -z "$left" ] || { echo "$left"; fail "files left after apt-get remove"; }
step "proven in $(( $(date +%s) - start )) s in all"
