#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# Sets everything up, builds kestrune-measure and the Python module, and runs the program: on a rendered exposure with
# known truth and, where the real images are there, on a photograph of a dotted plate. The pictures go to out/demo, or to
# the folder that is given.
set -euo pipefail
root=$(realpath "$(dirname "$0")/..")
out=$(realpath -m "${1:-$root/out/demo}")
cd "$root"

scripts/setup.sh
cmake --preset release --log-level=WARNING
cmake --build --preset release --target kestrune-measure kestrune_python --parallel "$(nproc)"

measure=build/release/apps/measure/kestrune-measure
# 1 tells that a path missed a marker or found a false one. The table shows which; nothing has failed.
"$measure" demo --out "$out" || (( $? == 1 ))

photograph=../shared/data/real/dot-grid-stereo/left_00001.png
if [[ -r $photograph ]]; then
    echo
    for path in complex radial subpixel; do
        invert=(--invert)  # the plate's dots are dark, which only one path takes
        [[ $path != complex ]] || invert=()
        "$measure" extract "$photograph" "${invert[@]}" --settings "examples/settings/dot-grid-$path.yaml" \
            --csv "$out/photograph-$path.csv" --overlay "$out/photograph-$path.png"
    done
fi
echo
echo "All pictures and tables are in $out"
