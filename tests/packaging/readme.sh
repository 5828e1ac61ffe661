#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# The page shows the program, all but its licence line, word for word.  usage: readme.sh PAGE PROGRAM
set -euo pipefail
program=$(tail -n +2 "$2")
[[ -n $program && $(<"$1") == *$'\n```cpp\n'"$program"$'\n```\n'* ]] || { echo "$1 does not show $2"; exit 1; }
