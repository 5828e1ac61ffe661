#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# Installs the build into an empty prefix, moves the prefix, and builds and runs a host against it outside of the tree:
# once through the CMake package, once through pkg-config. Both must find the one disc, to the tenth of a pixel.
# usage: consumer.sh CMAKE COMPILER PKG_CONFIG VERSION SOURCE_TREE BUILD_TREE WORK_FOLDER
set -euxo pipefail
cmake=$1 compiler=$2 pkg_config=$3 version=$4 source=$5 build=$6 work=$7
host=$source/tests/packaging/consumer
expected='marker 0 at 150.3 99.7'

rm -rf "$work"
"$cmake" --install "$build" --prefix "$work/staging"
mv "$work/staging" "$work/prefix"
prefix=$work/prefix
if grep --recursive --fixed-strings --binary-files=without-match -e "$source" -e "$build" -e "$work" "$prefix"; then
    exit 1  # a path of this machine
fi

"$cmake" -S "$host" -B "$work/build" -G Ninja -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_PREFIX_PATH="$prefix" \
    -DREQUIRED_VERSION="$version"
"$cmake" --build "$work/build"
[[ $("$work/build/host") == "$expected" ]]
if "$cmake" -S "$host" -B "$work/refused" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" -DREQUIRED_VERSION="${version%%.*}.99"
then
    exit 1  # a host that asks for a later version took this one
fi

libdir=$(dirname "$(find "$prefix" -name 'libkestrune_MarkerExtractor.so')")
export PKG_CONFIG_PATH=$libdir/pkgconfig
[[ $("$pkg_config" --modversion kestrune_MarkerExtractor) == "$version" ]]
read -ra flags < <("$pkg_config" --cflags --libs kestrune_MarkerExtractor)
"$compiler" -std=c++17 -Wall -Wextra -Werror "$host/main.cpp" "${flags[@]}" -o "$work/host"
[[ $(LD_LIBRARY_PATH=$libdir "$work/host") == "$expected" ]]
