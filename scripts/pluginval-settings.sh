# Sourced by the pluginval runs (the build tree, the installed package, Windows under Wine) so
# that all of them validate with the same strictness, rates, block sizes, repeat and order.
# With seed 3 "Allocations during process" runs before other tests have grown the plug-in's
# buffers, so a growth on the audio thread shows (with some seeds an earlier test hides it).
pluginval_settings=(--strictness-level 10 --validate-in-process
                    --sample-rates 8000,22050,44100,48000,96000,192000,384000
                    --block-sizes 1,17,64,333,1024,8192
                    --repeat "${PLUGINVAL_REPEAT:-3}" --randomise --random-seed "${PLUGINVAL_SEED:-3}"
                    --timeout-ms 300000)

# tests/pluginval/disabled-FORMAT.txt may switch a test off for one format, one name per line,
# each with a comment line above it saying why. Prints them comma-separated.
pluginval_disabled_for () {
    local list
    list=$(dirname "${BASH_SOURCE[0]}")/../tests/pluginval/disabled-$1.txt
    [ -f "$list" ] && grep -v '^#' "$list" | grep -v '^$' | paste -sd, -
}

# Prints one line per test and kind of failure in a pluginval log, with how often it happened.
pluginval_failures () {
    awk '/^Starting tests in: /   { sub (/^Starting tests in: pluginval \/ /, ""); test = $0 }
         /^!!! Test [0-9]+ failed/ { sub (/^!!! Test [0-9]+ failed: /, ""); gsub (/[0-9]+/, "N"); count[test " | " $0]++ }
         /^\*\*\* FAILED: /        { count[test " | " $0]++ }
         END { for (k in count) printf "  %5d x %s\n", count[k], k }' "$1" | sort -t'|' -k1,1 | head -n 60
}
