#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# The symbols that the shared library exports are those of the list, no more and no fewer.
# usage: exports.sh NM LIBRARY LIST
set -euo pipefail
export LC_ALL=C
"$1" --dynamic --defined-only --demangle "$2" | cut -d' ' -f3- | sort -u | diff --unified "$3" -
