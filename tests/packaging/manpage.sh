#!/usr/bin/env bash
# The manual page documents exactly the options --help lists, and man renders it without a
# warning.   manpage.sh QUENDA_RENDER PAGE
set -euo pipefail
render=$1
page=$2

options_in () { grep -oE -- '(^|[^a-zA-Z0-9-])--?[a-zA-Z][a-zA-Z-]*' | grep -oE -- '--?[a-zA-Z][a-zA-Z-]*' | sort -u; }

help=$("$render" --help | options_in)
man=$(sed -e 's/\\-/-/g' -e 's/\\f[BIRP]//g' "$page" | grep -v '^\.\\"' | options_in)

status=0
if [ "$help" != "$man" ]; then
    echo "manpage: options differ (< only in --help, > only in the page):"
    diff <(echo "$help") <(echo "$man") | grep '^[<>]' || true
    status=1
fi

warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$page" 2>&1 > /dev/null)
if [ -n "$warnings" ]; then
    echo "manpage: man warns:"
    echo "$warnings"
    status=1
fi

[ $status -eq 0 ] && echo "manpage: $(echo "$help" | wc -l) options, rendered cleanly"
exit $status
