#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# Sets everything up, builds a preset and runs every test of it. usage: scripts/test.sh [release|debian|debug|asan|tsan]
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-release}

case $preset in
    release | debian | debug) scripts/setup.sh ;;
    asan | tsan) scripts/setup.sh clang ;;
    *) echo "usage: scripts/test.sh [release|debian|debug|asan|tsan]" >&2; exit 2 ;;
esac

# The sanitizers reserve fixed places in memory, which kernels with much address randomisation may have taken.
run=()
if [[ $preset == ?san ]] && setarch "$(uname -m)" -R true 2>/dev/null; then run=(setarch "$(uname -m)" -R); fi

cmake --preset "$preset" --log-level=WARNING
"${run[@]}" cmake --build --preset "$preset" --parallel "$(nproc)"
exec "${run[@]}" ctest --preset "$preset" --parallel "$(nproc)"
