#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# Builds the fuzzers and runs each for a while; what breaks a promise or a sanitizer is left in build/fuzz/found.
# usage: scripts/fuzz.sh [SECONDS for each, 60]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}

scripts/setup.sh tsan  # for its compiler
cmake --preset fuzz --log-level=WARNING
cmake --build --preset fuzz --parallel "$(nproc)"
mkdir -p build/fuzz/found
# Leaks are those of thread pools that live as long as the program.
export ASAN_OPTIONS=detect_leaks=0 OMP_NUM_THREADS=2
for fuzzer in extraction stereo camera; do
    mkdir -p "build/fuzz/corpus/$fuzzer"
    # The library's warnings go to standard output.
    "build/fuzz/fuzz/kestrune_${fuzzer}_fuzz" -max_total_time="$seconds" -max_len=4096 -len_control=0 -timeout=60 \
        -rss_limit_mb=4096 -print_final_stats=1 -artifact_prefix="build/fuzz/found/$fuzzer-" "build/fuzz/corpus/$fuzzer" >/dev/null
done
