#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# Makes the Debian packages of the build and looks into them: what each holds, what it needs, how it describes itself, and
# that no file tells where it was built.  usage: packages.sh CPACK VERSION SOURCE_TREE BUILD_TREE WORK_FOLDER
set -euo pipefail
export LC_ALL=C
cpack=$1 version=$2 source=$3 build=$4 work=$5
soversion=${version%%.*}
[[ $soversion != 0 ]] || soversion=${version%.*}
runtime=libkestrune-markerextractor$soversion

rm -rf "$work"
"$cpack" --config "$build/CPackConfig.cmake" -B "$work/packages" >"$work.log" 2>&1 || { cat "$work.log"; exit 1; }
arch=$(dpkg --print-architecture)

# inspect PACKAGE 'DEPENDENCY...' FILE...: it needs each of these, and holds these files and the licence but nothing else.
inspect() {
    local package=$1 needs=$2 root=$work/$1 dependency depends
    local deb
    deb=$(echo "$work/packages/${package}_${version}"_*.deb)
    shift 2
    dpkg-deb --extract "$deb" "$root"
    diff --unified <(printf '%s\n' "$@" "usr/share/doc/$package/copyright" | sort) \
        <(cd "$root" && find . ! -type d -printf '%P\n' | sed -E 's#lib/[^/]+-linux-[^/]+/#lib/#' | sort)
    cmp "$root/usr/share/doc/$package/copyright" "$source/LICENSE"
    depends=$(dpkg-deb --field "$deb" Depends)
    for dependency in $needs; do
        grep -qE "(^|, )$dependency(,| |$)" <<<"${depends//(= $version)/exactly}" || { echo "$package: $dependency"; exit 1; }
    done
    [[ $(dpkg-deb --field "$deb" Description) == 'finds circular markers'*$'\n'* ]]
}

library=usr/lib/libkestrune_MarkerExtractor.so
config=usr/lib/cmake/kestrune_MarkerExtractor/kestrune_MarkerExtractor
mapfile -t headers < <(find "$source/plugins/MarkerExtractor/include" -name '*.h' -printf 'usr/include/%P\n')
mapfile -t settings < <(find "$source/examples/settings" -name '*.yaml' -printf 'usr/share/kestrune/settings/%P\n')
inspect "$runtime" 'libopencv-core[0-9]+[a-z0-9]* libopencv-calib3d[0-9]+[a-z0-9]* libgomp1' \
    "$library.$soversion" "$library.$version"
inspect libkestrune-markerextractor-dev "$runtime.exactly libopencv-dev.*libopencv-dev libeigen3-dev" \
    "$library" "${headers[@]}" usr/lib/pkgconfig/kestrune_MarkerExtractor.pc \
    "$config"{Config,ConfigVersion,Targets,Targets-release}.cmake
inspect kestrune-tools "libopencv-core[0-9]+[a-z0-9]* libopencv-calib3d[0-9]+[a-z0-9]* libopencv-imgcodecs[0-9]+[a-z0-9]*" \
    usr/bin/kestrune-measure usr/share/man/man1/kestrune-measure.1.gz "${settings[@]}"
mapfile -t pages < <(cd "$source" && find README.md CHANGELOG.md CONTRIBUTING.md LICENSE docs examples/{minimal,stereo,settings} -type f ! -name '*.in' \
    -printf 'usr/share/doc/kestrune-doc/%p\n')
inspect kestrune-doc "" "${pages[@]}"

# Each command of the program has its section, and a link of the guides leads to a file.
manual=$(zcat "$work/kestrune-tools/usr/share/man/man1/kestrune-measure.1.gz")
for command in extract explain explain-stereo depth match stereo demo settings; do grep -q "^\.SS $command$" <<<"$manual"; done
grep -q '^\.B \\-\\-calibration' <<<"$manual"
cd "$work/kestrune-doc/usr/share/doc/kestrune-doc"
while IFS=: read -r page link; do
    [[ -e $(dirname "$page")/$link ]] || { echo "$page: no $link"; exit 1; }
done < <(grep -roP --include='*.md' '\]\(\K(?!https?:)[\w./-]+(?=[)#])' .)

control() { dpkg-deb --info "$work/packages/${runtime}_${version}_$arch.deb" "$1"; }
[[ $(control triggers) == 'activate-noawait ldconfig' ]]
[[ $(control shlibs) == "libkestrune_MarkerExtractor $soversion $runtime (>= $version)" ]]
if grep --recursive --fixed-strings --files-with-matches -e "$source" -e "$build" "$work"/*/usr; then exit 1; fi
