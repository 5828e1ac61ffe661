#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# The symbols of this project that the shared library exports are those of the list, no more and no fewer. The library's
# types may leave their type information.  usage: exports.sh NM LIBRARY LIST
set -euo pipefail
export LC_ALL=C
"$1" --dynamic --defined-only --demangle "$2" | cut -d' ' -f3- | grep kestrune |
    grep -vE '^typeinfo (name )?for ' | sort -u | diff --unified "$3" -
