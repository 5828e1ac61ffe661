#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# How the library and the programs are linked: nothing can be written that the loader has bound, nothing runs from the
# stack, buffers are guarded. The library calls its own operations directly, stays loaded, and is named by the numbers
# with which its records may change.  usage: hardening.sh READELF SONAME GUARDS LIBRARY PROGRAM...
set -euo pipefail
export LC_ALL=C
readelf=$1 soname=$2 guards=$3 library=$4
for file in "${@:4}"; do
    parts=$("$readelf" --wide --segments --dynamic "$file")
    for part in ' GNU_RELRO ' 'Flags:.* NOW' ' GNU_STACK .* RW  '; do
        grep -q "$part" <<<"$parts" || { echo "$file: no$part"; exit 1; }
    done
done
entries=$("$readelf" --wide --dynamic --dyn-syms "$library")
for entry in NODELETE "soname: \[$soname\]" ${guards// /@ }@; do
    grep -q "$entry" <<<"$entries" || { echo "$library: no $entry"; exit 1; }
done
# Bound by name though defined here, so that another may take its place; what is not defined has no address.
if "$readelf" --wide --relocs "$library" | grep 'N8kestrune' | grep -vE ' 0{16} _Z'; then exit 1; fi
