#!/bin/sh
# Every export of the header has its own comment directly above it: the line
# before each "Z_EXPORT" declaration ends a comment that starts a line (a
# "/* ... */" block ending there, or a "//" line), and is not a section
# banner. Every declaration of a Z_ function starts with Z_EXPORT, so that
# none escapes the check.
header="$1"
[ -r "$header" ] || { echo "cannot read $header"; exit 1; }
awk '
function report(msg) { printf "%s:%d: %s\n", FILENAME, FNR, msg; bad++ }
{
    line = $0
    if (line ~ /Z_(API|CDECL) Z_[A-Za-z0-9_]+\(/ && line !~ /^Z_EXPORT /)
        report("declaration does not start with Z_EXPORT: " line)
    if (line ~ /^Z_EXPORT /) {
        exports++
        if (!documented) {
            name = line; sub(/\(.*/, "", name); sub(/.* /, "", name)
            report(name " has no comment directly above it")
        }
    }
    # Whether this line ends a comment of its own that the next line may use.
    if (line ~ /^[ \t]*\/\*/) in_block = 1
    if (line ~ /^[ \t]*\/\//) documented = 1
    else if (in_block && line ~ /\*\/[ \t]*$/) {
        documented = (line !~ /^[ \t]*\*?[ \t]*-+[ \t]*\*\/[ \t]*$/)  # a banner is no comment of its own
        in_block = 0
    } else documented = 0
}
END {
    if (exports == 0) { print "no exports found"; exit 1 }
    if (bad) { printf "%d of %d exports or declarations lack their comment\n", bad, exports; exit 1 }
    printf "%d exports, each with its comment\n", exports
}' "$header"
