#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# Builds the fuzzers and runs each for a while, as many at a time as there are processors; what breaks a promise or a
# sanitizer is left in build/fuzz/found, and the exit code is 1 then. Each starts from the inputs kept in fuzz/corpus and
# those that earlier runs found worth keeping. One seed tries much the same inputs each time; a campaign asks for others.
# usage: scripts/fuzz.sh [SECONDS for each, 60] [SEED, 1]
#        scripts/fuzz.sh --coverage     which share of the lines these inputs reach, by folder
#        scripts/fuzz.sh --keep         replaces fuzz/corpus by the fewest of these inputs that reach as much
set -euo pipefail
cd "$(dirname "$0")/.."
fuzzers=(extraction roads stereo matching camera refinement trust png)
library=plugins
folders=("$library"/MarkerExtractor/{MarkerExtractor/{stereo,camera,extraction},canny,ellipsedetection,checks,logging}
         "$library"/MarkerMetrology/{refinement,matching})
# Leaks are those of thread pools that live as long as the program.
export ASAN_OPTIONS=detect_leaks=0

build() {
    scripts/setup.sh clang
    cmake --preset "$1" --log-level=WARNING
    cmake --build --preset "$1" --parallel "$(nproc)"
}

# What libFuzzer says goes to a file, and the library's warnings, which come on standard output, nowhere.
fuzz_one() {
    local name=$1 seconds=$2 seed=$3 log=build/fuzz/$1.log
    mkdir -p "build/fuzz/corpus/$name" "build/fuzz/found/$name" "fuzz/corpus/$name"
    local code=0
    "build/fuzz/fuzz/kestrune_${name}_fuzz" -max_total_time="$seconds" -seed="$seed" -max_len=512 -len_control=0 -timeout=60 \
        -rss_limit_mb=4096 -print_final_stats=1 -artifact_prefix="build/fuzz/found/$name/" \
        "build/fuzz/corpus/$name" "fuzz/corpus/$name" >/dev/null 2>"$log" || code=$?
    count() { sed -n "s/^stat::$1: *//p" "$log"; }
    printf '%-12s %10s executions %6s a second   %s\n' "$name" "$(count number_of_executed_units)" \
        "$(count average_exec_per_sec)" "$( ((code)) && echo "FOUND SOMETHING, see $log" || echo "nothing found")"
    if ((code)); then grep -aE '^(broken promise|differs)|ERROR: |runtime error|SUMMARY|Test unit written' "$log" || true; fi
    return "$((code != 0))"
}

report_coverage() {
    local name profiles=() programs=()
    for name in "${fuzzers[@]}"; do
        local program=build/fuzz-coverage/fuzz/kestrune_${name}_fuzz profile=build/fuzz-coverage/$name.profraw
        mkdir -p "build/fuzz/corpus/$name" "fuzz/corpus/$name"
        LLVM_PROFILE_FILE=$profile "$program" -runs=0 "build/fuzz/corpus/$name" "fuzz/corpus/$name" >/dev/null 2>&1
        profiles+=("$profile")
        programs+=(-object "$program")
    done
    llvm-profdata merge -sparse "${profiles[@]}" -o build/fuzz-coverage/all.profdata
    echo "lines reached by the fuzzers"
    llvm-cov export -format=lcov -instr-profile=build/fuzz-coverage/all.profdata "${programs[@]:1}" |
        awk -v folders="${folders[*]#"$library"/}" -v library="/$library/" '
            /^SF:/ { path = substr($0, index($0, library) + length(library)); sub("/[^/]*$", "", path) }
            /^LF:/ { lines[path] += substr($0, 4) }
            /^LH:/ { reached[path] += substr($0, 4) }
            END {
                count = split(folders, names, " ")
                for (k = 1; k <= count; ++k) {
                    n = lines[names[k]]
                    printf "  %-44s %5d of %5d  %.2f %%\n", names[k], reached[names[k]], n, 100 * reached[names[k]] / n
                }
            }'
}

keep_corpus() {
    local name
    for name in "${fuzzers[@]}"; do
        local kept=build/fuzz/kept/$name
        rm -rf "$kept" && mkdir -p "$kept" "build/fuzz/corpus/$name" "fuzz/corpus/$name"
        "build/fuzz/fuzz/kestrune_${name}_fuzz" -set_cover_merge=1 "$kept" "fuzz/corpus/$name" "build/fuzz/corpus/$name" >/dev/null 2>&1
        rm -rf "fuzz/corpus/$name" && cp -r "$kept" "fuzz/corpus/$name"
    done
    du -sb fuzz/corpus/*
}

usage="usage: scripts/fuzz.sh [SECONDS] [SEED] | --coverage | --keep"
seconds=${1:-60} seed=${2:-1}
case $seconds in
    --coverage) build fuzz-coverage && report_coverage ;;
    --keep) build fuzz && keep_corpus ;;
    *)
        [[ $seconds$seed =~ ^[0-9]+$ ]] || { echo "$usage" >&2; exit 2; }
        build fuzz
        export -f fuzz_one
        printf '%s\n' "${fuzzers[@]}" | xargs -P "$(nproc)" -I{} bash -c 'fuzz_one "$@"' fuzz {} "$seconds" "$seed" || exit 1 ;;
esac
