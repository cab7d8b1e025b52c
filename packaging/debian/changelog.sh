#!/usr/bin/env bash
# CHANGELOG.md as a Debian changelog (the package is native: it is the only changelog shipped).
#   changelog.sh CHANGELOG.md OUTPUT
set -euo pipefail
maintainer="Selvane <quenda@selvane.example>"

awk -v maintainer="$maintainer" '
    function close_entry () {
        if (version == "") return
        cmd = "date -u -R -d " date " 2>/dev/null || echo invalid"
        cmd | getline stamp; close (cmd)
        printf "\n -- %s  %s\n\n", maintainer, stamp
    }
    /^## \[/ {
        close_entry()
        version = $2; gsub (/[\[\]]/, "", version)
        date = $4
        printf "quenda (%s) stable; urgency=medium\n\n", version
        next
    }
    version == "" { next }
    /^- /   { sub (/^- /, ""); printf "  * %s\n", $0; next }
    /^  /   { sub (/^  /, ""); printf "    %s\n", $0; next }
    /^$/    { next }
    { printf "  %s\n", $0 }
    END { close_entry() }
' "$1" | sed '$ d' > "$2"
