#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# Makes the manual page of a program from what its --help says.  usage: manual.sh PROGRAM VERSION FILE.1.gz
set -euo pipefail
export COLUMNS=10000 PYTHONDONTWRITEBYTECODE=1  # programs in Python do not break their lines then
program=$1 version=$2 file=$3
name=$(basename "$program")

# An option or argument and its meaning become an item; a line that begins a topic ("CSV: ...") a paragraph. Without
# commands, options and what comes after them are sections of the page.
page() {
    awk -v whole="$1" '{ gsub(/\\/, "\\e"); gsub(/-/, "\\-") }
         /^[Oo]ptions:$/ && whole { print ".SH OPTIONS" }
         /^([Oo]ptions|Positionals|Subcommands):$/ || /^$/ || /^usage: / { next }
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
         items || /^[A-Z][A-Za-z]*( [a-z]+)?: / || /^Ctrl/ { print items && whole ? ".SH NOTES" : ".PP"; items = 0 }
         { print "\\&" $0 }'
}

help=$("$program" --help)
mapfile -t commands < <(sed '1,/^Subcommands:/d' <<<"$help" | awk 'NF { print $1 }')
usage=$(sed -n "s/^usage: $name //p" <<<"$help")
[[ -n $usage ]] || (( ${#commands[@]} )) || { echo "$program --help tells neither commands nor usage" >&2; exit 1; }
manual() {
    local line
    line=$(grep -vEm1 '^(usage:|$)' <<<"$help" | sed 's/\.$//')
    echo ".TH ${name^^} 1 \"\" \"$version\" \"kestrune\""
    echo ".nh"  # options stay whole
    echo ".SH NAME"
    echo "$name \\- ${line,}"
    echo ".SH SYNOPSIS"
    echo ".B $name"
    if [[ -n $usage ]]; then
        echo "${usage//-/\\-}"
        echo ".SH DESCRIPTION"
        page whole <<<"$help"
    else
        echo "COMMAND [OPTION...]"
        echo ".SH COMMANDS"
        for command in "${commands[@]}"; do
            echo ".SS $command"
            "$program" "$command" --help | page ""
        done
    fi
    echo ".SH SEE ALSO"
    echo "The guides to paths, settings, calibration, stereo and clusters: /usr/share/doc/kestrune\\-doc/docs, or docs in the source tree."
}
manual | gzip -9n >"$file"
