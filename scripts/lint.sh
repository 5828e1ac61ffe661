#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# Checks the layout (clang-format), the scripts (shellcheck), Python (flake8, mypy) and the code (clang-tidy), and changes
# nothing.
# usage: scripts/lint.sh               everything
#        scripts/lint.sh --quick       clang-tidy leaves out tests, benchmarks, fuzzers and its analyzer of flows, which
#                                      takes as long as all the rest; sanitizers and fuzzers look at flows, too
#        scripts/lint.sh REGEX...      clang-tidy only on source files whose path matches
set -euo pipefail
cd "$(dirname "$0")/.."
folders=(geometry plugins measurement scene apps examples tests benchmarks fuzz)
quick_folders=(geometry plugins measurement scene apps examples)
quick_checks='-clang-analyzer-*'
# These look at nothing that is included, so that a file gets them alone.
alone_checks=bugprone-suspicious-include,misc-unused-alias-decls,misc-unused-using-decls,readability-redundant-preprocessor
files_of_unit=12
clean=0

below() { local IFS='|'; echo "^$PWD/($*)/"; }

# Two files of a unit may use one name, each for itself: a unit that does not compile is checked file by file.
check_unit() {
    local unit=$1 said
    said=$(clang-tidy -quiet -p build/lint-units -checks="$quick_checks,-${alone_checks//,/,-}" "$unit" 2>&1) && return
    if [[ $said == *'[clang-diagnostic-'* ]]; then
        echo "$unit does not compile: file by file"
        sed -n 's/^#include "\(\/.*\)"$/\1/p' "$unit" | xargs -n 1 clang-tidy -quiet -p build/lint -checks="$quick_checks" 2>&1
    else
        echo "$said"
        return 1
    fi
}
export -f check_unit
export quick_checks alone_checks

# Most of the time of clang-tidy goes to the headers of the dependencies: many source files share them as one unit. Then
# each file alone, with the few checks that this leaves out: it tells of a missing include as well.
check_quickly() {
    cmake --preset release -B build/lint-units -DKESTRUNE_PRECOMPILE=OFF -DCMAKE_UNITY_BUILD=ON \
        -DCMAKE_UNITY_BUILD_BATCH_SIZE=$files_of_unit -DKESTRUNE_BUILD_TESTS=OFF -DKESTRUNE_BUILD_BENCHMARKS=OFF --log-level=WARNING
    sed -n 's/^ *"file": "\(.*\)".*/\1/p' build/lint-units/compile_commands.json |
        xargs -P "$(nproc)" -I{} bash -c 'check_unit "$@"' lint {} || clean=1
    run-clang-tidy -quiet -p build/lint -j "$(nproc)" -checks="-*,$alone_checks" "$(below "${quick_folders[@]}")" || clean=1
}

scripts/setup.sh lint
find "${folders[@]}" \( -name '*.h' -o -name '*.cpp' \) -print0 | xargs -0 clang-format --dry-run -Werror || clean=1
shellcheck scripts/*.sh .ci/run benchmarks/compare tests/packaging/*.sh cmake/python/* || clean=1
python=/usr/bin/python3  # Debian's, that has numpy's types
"$python" -m flake8 python examples docs tests || clean=1
"$python" -m mypy --strict python/kestrune && "$python" -m mypy examples/python || clean=1

cmake --preset release -B build/lint -DKESTRUNE_PRECOMPILE=OFF --log-level=WARNING
if [[ ${1:-} == --quick ]]; then
    check_quickly
else
    run-clang-tidy -quiet -p build/lint -j "$(nproc)" "${@:-$(below "${folders[@]}")}" || clean=1
fi
((clean == 0))
