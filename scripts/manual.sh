#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# Makes the manual page of the program from what its --help says.  usage: manual.sh PROGRAM VERSION FILE.1.gz
set -euo pipefail
program=$1 version=$2 file=$3
name=$(basename "$program")

# An option or argument and its meaning become an item; a line that begins a topic ("CSV: ...") a paragraph.
page() {
    awk '{ gsub(/\\/, "\\e"); gsub(/-/, "\\-") }
         /^(Options|Positionals|Subcommands):$/ || /^$/ { next }
         /^Usage: / { print ".PP\n.B " substr($0, 8); next }
         /^   / { sub(/^ +/, ""); print "\\&" $0; next }
         /^  / {
             sub(/^  /, "")
             at = match($0, /   */)
             if (!at && length($0) > 28 && match($0, /REQUIRED /)) at = RSTART + RLENGTH - 1
             print ".TP\n.B " (at ? substr($0, 1, at - 1) : $0)
             if (at) { text = substr($0, at); sub(/^ +/, "", text); print "\\&" text }
             items = 1
             next
         }
         items || /^[A-Z][A-Za-z]*( [a-z]+)?: / || /^Ctrl/ { print ".PP"; items = 0 }
         { print "\\&" $0 }'
}

help=$("$program" --help)
mapfile -t commands < <(sed '1,/^Subcommands:/d' <<<"$help" | awk 'NF { print $1 }')
(( ${#commands[@]} )) || { echo "$program --help lists no commands" >&2; exit 1; }
manual() {
    echo ".TH ${name^^} 1 \"\" \"$version\" \"kestrune\""
    echo ".SH NAME"
    echo "$name \\- $(head -n 1 <<<"$help" | sed 's/\.$//; s/^F/f/')"
    echo ".SH SYNOPSIS"
    echo ".B $name"
    echo "COMMAND [OPTION...]"
    echo ".SH COMMANDS"
    for command in "${commands[@]}"; do
        echo ".SS $command"
        "$program" "$command" --help | page
    done
    echo ".SH SEE ALSO"
    echo "The guides to paths, settings, calibration and stereo: /usr/share/doc/kestrune\\-doc/docs, or docs in the source tree."
}
manual | gzip -9n >"$file"
