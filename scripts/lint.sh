#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# Checks the layout (clang-format), the scripts (shellcheck) and the code (clang-tidy), and changes nothing.
# usage: scripts/lint.sh               everything
#        scripts/lint.sh --quick       clang-tidy leaves out tests, benchmarks, fuzzers and its analyzer of flows, which
#                                      takes as long as all the rest; sanitizers and fuzzers look at flows, too
#        scripts/lint.sh REGEX...      clang-tidy only on source files whose path matches
set -euo pipefail
cd "$(dirname "$0")/.."
folders=(geometry plugins measurement scene apps examples tests benchmarks fuzz)
clean=0

scripts/setup.sh lint
find "${folders[@]}" \( -name '*.h' -o -name '*.cpp' \) -print0 | xargs -0 clang-format --dry-run -Werror || clean=1
shellcheck scripts/*.sh .ci/run benchmarks/compare tests/packaging/*.sh || clean=1

cmake --preset release -B build/lint -DKESTRUNE_PRECOMPILE=OFF --log-level=WARNING
checks=()
if [[ ${1:-} == --quick ]]; then folders=(geometry plugins measurement scene apps examples) checks=(-checks=-clang-analyzer-*) && shift; fi
if (( $# == 0 )); then set -- "^$PWD/($(IFS='|'; echo "${folders[*]}"))/"; fi
run-clang-tidy -quiet -p build/lint -j "$(nproc)" "${checks[@]}" "$@" || clean=1
exit "$clean"
