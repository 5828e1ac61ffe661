#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# Installs the build into an empty prefix, moves the prefix to a place with a space in its name, and builds and runs hosts
# against it outside of the tree: through the CMake packages, and through pkg-config with the flags for shared and for
# static linking. All must find the one disc, to the tenth of a pixel, and the program its ready settings. The program, a
# host and the Python module measure the same points.
# usage: consumer.sh CMAKE COMPILER PKG_CONFIG VERSION SOURCE_TREE BUILD_TREE WORK_FOLDER [PYTHON]
set -euxo pipefail
cmake=$1 compiler=$2 pkg_config=$3 version=$4 source=$5 build=$6 work=$7 python=${8:-}
example=$source/examples/minimal host=$source/tests/packaging/consumer
expected='marker 0 at 150.3 99.7'

rm -rf "$work"
"$cmake" --install "$build" --prefix "$work/staging"
prefix="$work/the prefix"
mv "$work/staging" "$prefix"
if grep --recursive --fixed-strings --files-with-matches -e "$source" -e "$build" -e "$work" "$prefix"; then
    exit 1  # a path of this machine
fi
[[ -z $(find "$prefix" -name '__pycache__') ]]

# build_host NAME SOURCE_FOLDER OPTION...
build_host() {
    "$cmake" -S "$2" -B "$work/$1" -G Ninja -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_PREFIX_PATH="$prefix" \
        -DCMAKE_CXX_FLAGS="-Wall -Wextra -Wpedantic -Wconversion -Werror" "${@:3}"
    "$cmake" --build "$work/$1"
}
files=("$source/examples/settings/bright-complex.yaml" "$work/any-size.yaml" "$work/rig.yaml")  # read; written
build_host minimal "$example"
[[ $("$work/minimal/minimal") == "$expected" ]]
build_host operations "$host" -DLIBRARY=MarkerExtractor -DHOST=every_operation.cpp -DREQUIRED_VERSION="$version"
"$work/operations/host"
build_host files "$host" -DLIBRARY=MarkerMetrology -DHOST=files.cpp -DREQUIRED_VERSION="$version"
"$work/files/host" "${files[@]}"
for library in MarkerExtractor MarkerMetrology; do
    if build_host refused "$host" -DLIBRARY=$library -DHOST=files.cpp -DREQUIRED_VERSION="${version%%.*}.99"; then
        exit 1  # a host that asks for a later version took this one
    fi
done

libdir=$(dirname "$(find "$prefix" -name 'libkestrune_MarkerExtractor.so')")
export PKG_CONFIG_PATH=$libdir/pkgconfig
if [[ -x $prefix/bin/kestrune-measure ]]; then
    [[ $("$prefix/bin/kestrune-measure" --version) == "kestrune-measure $version" ]]
    "$prefix/bin/kestrune-measure" demo --size 640x480 --markers 6 --out "$work/demo" || (( $? == 1 ))  # 1: missed one
    # The host with the same settings gives the points that the program gives.
    build_host stereo "$source/examples/stereo"
    cd "$work/demo"
    sed 's/^markerRadii.*/markerRadii: [ ]/' "$prefix/share/kestrune/settings/bright-complex.yaml" >any-size.yaml
    "$prefix/bin/kestrune-measure" stereo --no-refine --match path --calibration stereo-calibration.yaml --left stereo-left.png --right stereo-right.png \
        --settings any-size.yaml --csv points.csv
    "$work/stereo/stereo" stereo-left.png stereo-right.png stereo-calibration.yaml any-size.yaml >points.txt
    awk -F, 'NR == 1 { for (k = 1; k <= NF; ++k) at[$k] = k; next }
             { print $at["X"], $at["Y"], $at["Z"], $at["radius"] }' points.csv | paste -d' ' - points.txt | tr -d ':,' |
        awk '{ split("6 7 8 10", host); for (k in host) if (($k - $host[k])^2 > 1e-6) exit bad = 1 } END { exit bad || NR < 5 }'
    cd -
fi

for linking in --shared --static; do
    for of in "MarkerExtractor:$example/main.cpp" "MarkerMetrology:$host/files.cpp"; do
        flags=()
        eval "flags=($("$pkg_config" "$linking" --cflags --libs "kestrune_${of%%:*}"))"  # they quote spaces for a shell
        [[ $("$pkg_config" --modversion "kestrune_${of%%:*}") == "$version" ]]
        "$compiler" -std=c++17 -Wall -Wextra -Werror "${of#*:}" "${flags[@]}" -o "$work/${of%%:*}"
    done
    [[ $(LD_LIBRARY_PATH=$libdir "$work/MarkerExtractor") == "$expected" ]]
    LD_LIBRARY_PATH=$libdir "$work/MarkerMetrology" "${files[@]}"
done

if [[ -n $python ]]; then
    export PYTHONDONTWRITEBYTECODE=1
    unset PYTHONPATH
    modules=$(dirname "$(dirname "$(find "$prefix" -path '*/kestrune/__init__.py')")")
    [[ $modules == "$prefix/lib/python3/dist-packages" ]]
    PYTHONPATH=$modules "$python" - "$version" "$work/demo" <<'EOF'
import os, sys
import kestrune
import numpy

assert kestrune.__version__ == sys.argv[1]
if os.path.isdir(sys.argv[2]):
    os.chdir(sys.argv[2])
    extractor = kestrune.Extractor(kestrune.Settings.read("any-size.yaml", use="stereo"), kestrune.Rig.read("stereo-calibration.yaml"))
    points = extractor.stereo(*map(kestrune.read_image, ["stereo-left.png", "stereo-right.png"]), refine=False, match="path")
    table = numpy.genfromtxt("points.csv", delimiter=",", names=True)
    assert len(table) > 4 and all(numpy.allclose(points[name], table[name], 0, 1e-6) for name in ("X", "Y", "Z", "radius"))
EOF
    if [[ -e $modules/kestrune/batch ]]; then "$prefix/bin/kestrune-batch" --help; fi
fi
