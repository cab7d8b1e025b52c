#!/usr/bin/env bash
# Formats Quenda's own C++ sources with clang-format 14 and the repository's .clang-format.
#
#   bash scripts/format.sh            # rewrites the files in place
#   bash scripts/format.sh --check    # changes nothing; lists the files that would change
#                                     # and exits non-zero if there are any
set -euo pipefail
cd "$(dirname "$0")/.."

formatter=$(command -v clang-format-14 || command -v clang-format || true)
if [ -z "$formatter" ]; then
    echo "format: clang-format 14 not found (package clang-format-14)" >&2
    exit 2
fi

check=false
case "${1:-}" in
    --check) check=true ;;
    "") ;;
    *) echo "usage: format.sh [--check]" >&2; exit 2 ;;
esac

# Tracked sources only: build folders and generated code stay out.
mapfile -t files < <(git ls-files -- '*.cpp' '*.h')

if ! $check; then
    "$formatter" -i --style=file "${files[@]}"
    exit 0
fi

unformatted=()
for file in "${files[@]}"; do
    if ! "$formatter" --style=file "$file" | cmp -s - "$file"; then
        unformatted+=("$file")
    fi
done

if [ ${#unformatted[@]} -gt 0 ]; then
    printf '%s\n' "${unformatted[@]}"
    echo "format: ${#unformatted[@]} file(s) differ from .clang-format (bash scripts/format.sh rewrites them)" >&2
    exit 1
fi
