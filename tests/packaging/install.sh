#!/usr/bin/env bash
# `cmake --install` honours --prefix and DESTDIR, writes nothing elsewhere (not in HOME either),
# installs what a user runs, and replaces a bundle left from before instead of merging into it.
#   install.sh BUILD_DIR VERSION
set -euo pipefail
build=$1
version=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
mkdir "$tmp/home"
prefix=/opt/quenda-test

install_once () { HOME=$tmp/home DESTDIR=$tmp/dest cmake --install "$build" --prefix "$prefix" > "$tmp/log" 2>&1 || { cat "$tmp/log"; exit 1; }; }

install_once
root=$tmp/dest$prefix
status=0
for file in bin/quenda bin/quenda-render lib/vst/Quenda.so \
            lib/vst3/Quenda.vst3/Contents/x86_64-linux/Quenda.so lib/lv2/Quenda.lv2/manifest.ttl \
            lib/lv2/Quenda.lv2/dsp.ttl share/applications/quenda.desktop \
            share/icons/hicolor/scalable/apps/quenda.svg share/man/man1/quenda-render.1.gz \
            share/man/man1/quenda.1.gz share/doc/quenda/copyright share/doc/quenda/changelog.gz; do
    [ -f "$root/$file" ] || { echo "install: missing $prefix/$file"; status=1; }
done
for program in bin/quenda bin/quenda-render; do
    [ -x "$root/$program" ] || { echo "install: $prefix/$program is not executable"; status=1; }
done

stray=$(cd "$tmp" && find dest home -mindepth 1 -not -path "dest${prefix}*" -not -path dest/opt)
[ -z "$stray" ] || { echo "install: written outside the prefix:"; echo "$stray"; status=1; }

if command -v desktop-file-validate > /dev/null; then
    desktop-file-validate "$root/share/applications/quenda.desktop" || status=1
fi

"$root/bin/quenda-render" --version | grep -qx "quenda-render $version\( (git [0-9a-f]*\(-dirty\)\?)\)\?" \
    || { echo "install: the installed renderer reports '$("$root/bin/quenda-render" --version)', not $version"; status=1; }

touch "$root/lib/vst3/Quenda.vst3/Contents/stale" "$root/lib/lv2/Quenda.lv2/stale.ttl"
install_once
for file in lib/vst3/Quenda.vst3/Contents/stale lib/lv2/Quenda.lv2/stale.ttl; do
    [ ! -e "$root/$file" ] || { echo "install: $file from an earlier install survived"; status=1; }
done

[ $status -eq 0 ] && echo "install: $(cd "$root" && find . -type f | wc -l) files under $prefix, nothing elsewhere"
exit $status
