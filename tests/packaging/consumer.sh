#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# Installs the build into an empty prefix, moves the prefix to a place with a space in its name, and builds and runs a host
# against it outside of the tree: through the CMake package, and through pkg-config with the flags for shared and for
# static linking. All must find the one disc, to the tenth of a pixel, and the program its ready settings.
# usage: consumer.sh CMAKE COMPILER PKG_CONFIG VERSION SOURCE_TREE BUILD_TREE WORK_FOLDER
set -euxo pipefail
cmake=$1 compiler=$2 pkg_config=$3 version=$4 source=$5 build=$6 work=$7
example=$source/examples/minimal host=$source/tests/packaging/consumer
expected='marker 0 at 150.3 99.7'

rm -rf "$work"
"$cmake" --install "$build" --prefix "$work/staging"
prefix="$work/the prefix"
mv "$work/staging" "$prefix"
if grep --recursive --fixed-strings --files-with-matches -e "$source" -e "$build" -e "$work" "$prefix"; then
    exit 1  # a path of this machine
fi

"$cmake" -S "$example" -B "$work/minimal" -G Ninja -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_FLAGS="-Wall -Wextra -Wpedantic -Wconversion -Werror"
"$cmake" --build "$work/minimal"
[[ $("$work/minimal/minimal") == "$expected" ]]
"$cmake" -S "$host" -B "$work/build" -G Ninja -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_PREFIX_PATH="$prefix" \
    -DREQUIRED_VERSION="$version"
"$cmake" --build "$work/build"
"$work/build/every_operation"
if "$cmake" -S "$host" -B "$work/refused" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" -DREQUIRED_VERSION="${version%%.*}.99"
then
    exit 1  # a host that asks for a later version took this one
fi

libdir=$(dirname "$(find "$prefix" -name 'libkestrune_MarkerExtractor.so')")
export PKG_CONFIG_PATH=$libdir/pkgconfig
[[ $("$pkg_config" --modversion kestrune_MarkerExtractor) == "$version" ]]
if [[ -x $prefix/bin/kestrune-measure ]]; then
    [[ $("$prefix/bin/kestrune-measure" --version) == "kestrune-measure $version" ]]
    "$prefix/bin/kestrune-measure" demo --size 640x480 --markers 6 --out "$work/demo" || (( $? == 1 ))  # 1: missed one
    # The host with the same settings gives the points that the program gives.
    "$cmake" -S "$source/examples/stereo" -B "$work/stereo" -G Ninja -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_PREFIX_PATH="$prefix" \
        -DCMAKE_CXX_FLAGS="-Wall -Wextra -Wpedantic -Wconversion -Werror"
    "$cmake" --build "$work/stereo"
    cd "$work/demo"
    sed 's/^markerRadii.*/markerRadii: [ ]/' "$prefix/share/kestrune/settings/bright-complex.yaml" >any-size.yaml
    "$prefix/bin/kestrune-measure" stereo --calibration stereo-calibration.yaml --left stereo-left.png --right stereo-right.png \
        --settings any-size.yaml --csv points.csv
    "$work/stereo/stereo" stereo-left.png stereo-right.png stereo-calibration.yaml >points.txt
    awk -F, 'NR == 1 { for (k = 1; k <= NF; ++k) at[$k] = k; next }
             { print $at["X"], $at["Y"], $at["Z"], $at["radius"] }' points.csv | paste -d' ' - points.txt | tr -d ':,' |
        awk '{ split("6 7 8 10", host); for (k in host) if (($k - $host[k])^2 > 1e-6) exit bad = 1 } END { exit bad || NR < 5 }'
    cd -
fi

for linking in --shared --static; do
    flags=()
    eval "flags=($("$pkg_config" "$linking" --cflags --libs kestrune_MarkerExtractor))"  # they quote spaces for a shell
    "$compiler" -std=c++17 -Wall -Wextra -Werror "$example/main.cpp" "${flags[@]}" -o "$work/host"
    [[ $(LD_LIBRARY_PATH=$libdir "$work/host") == "$expected" ]]
done
