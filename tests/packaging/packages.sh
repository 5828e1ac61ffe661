#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# Makes the Debian packages of the build and looks into them: what each holds, what it needs, how it describes itself, and
# that no file tells where it was built.  usage: packages.sh CPACK VERSION SOURCE_TREE BUILD_TREE WORK_FOLDER [PYTHON]
set -euo pipefail
export LC_ALL=C
cpack=$1 version=$2 source=$3 build=$4 work=$5 python=${6:-}
soversion=${version%%.*}
[[ $soversion != 0 ]] || soversion=${version%.*}
runtime=libkestrune-markerextractor$soversion metrology=libkestrune-markermetrology$soversion

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

# inspect_library NAME PACKAGE 'DEPENDENCY...' DEV_PACKAGE 'DEPENDENCY...'
inspect_library() {
    local library=usr/lib/libkestrune_$1.so config=usr/lib/cmake/kestrune_$1/kestrune_$1 headers
    mapfile -t headers < <(find "$source/plugins/$1/include" -name '*.h' -printf 'usr/include/%P\n')
    inspect "$2" "$3" "$library.$soversion" "$library.$version"
    inspect "$4" "$2.exactly $5" "$library" "${headers[@]}" "usr/lib/pkgconfig/kestrune_$1.pc" \
        "$config"{Config,ConfigVersion,Targets,Targets-release}.cmake
    [[ $(control "$2" triggers) == 'activate-noawait ldconfig' ]]
    [[ $(control "$2" shlibs) == "libkestrune_$1 $soversion $2 (>= $version)" ]]
}
control() { dpkg-deb --info "$work/packages/$1_${version}_$arch.deb" "$2"; }

inspect_library MarkerExtractor "$runtime" 'libopencv-core[0-9]+[a-z0-9]* libopencv-calib3d[0-9]+[a-z0-9]* libgomp1' \
    libkestrune-markerextractor-dev "libopencv-dev.*libopencv-dev libeigen3-dev"
inspect_library MarkerMetrology "$metrology" "$runtime.exactly libyaml-cpp[0-9.]+ libopencv-core[0-9]+[a-z0-9]*" \
    libkestrune-markermetrology-dev libkestrune-markerextractor-dev.exactly
mapfile -t settings < <(find "$source/examples/settings" -name '*.yaml' -printf 'usr/share/kestrune/settings/%P\n')
inspect kestrune-tools "libopencv-core[0-9]+[a-z0-9]* libopencv-calib3d[0-9]+[a-z0-9]* libopencv-imgcodecs[0-9]+[a-z0-9]*" \
    usr/bin/kestrune-measure usr/share/man/man1/kestrune-measure.1.gz "${settings[@]}"
mapfile -t pages < <(cd "$source" && find README.md CHANGELOG.md CONTRIBUTING.md LICENSE docs examples -type f ! -name '*.in' ! -name '*.pyc' \
    -printf 'usr/share/doc/kestrune-doc/%p\n')
inspect kestrune-doc "" "${pages[@]}"
if [[ -n $python ]]; then
    read -r abi next < <("$python" -c 'import sys; print("%d.%d" % sys.version_info[:2], "%d.%d" % (sys.version_info[0], sys.version_info[1] + 1))')
    suffix=$("$python" -c 'import sysconfig; print(sysconfig.get_config_var("EXT_SUFFIX"))')
    mapfile -t modules < <(cd "$source/python" && find kestrune ! -name '*.pyc' -type f -printf 'usr/lib/python3/dist-packages/%p\n')
    inspect python3-kestrune "python3.\(>=.$abi~\),.python3.\(<<.$next\) python3-numpy libopencv-imgcodecs[0-9]+[a-z0-9]* libyaml-cpp[0-9.]+ libopencv-core[0-9]+[a-z0-9]*" \
        usr/bin/kestrune-batch usr/share/man/man1/kestrune-batch.1.gz "usr/lib/python3/dist-packages/kestrune/_native$suffix" "${modules[@]}"
    # It stands alone, and what Python writes beside its files goes with them.
    if grep -q libkestrune <<<"$(dpkg-deb --field "$work/packages/python3-kestrune_${version}_$arch.deb" Depends)"; then exit 1; fi
    if objdump -p "$work/python3-kestrune/usr/lib/python3/dist-packages/kestrune/_native$suffix" | grep libkestrune; then exit 1; fi
    control python3-kestrune postinst | grep -q py3compile
    control python3-kestrune prerm | grep -q py3clean
    manual=$(zcat "$work/python3-kestrune/usr/share/man/man1/kestrune-batch.1.gz")
    mapfile -t options < <("$build/python/kestrune-batch" --help | grep -oP '^  (-h, )?\K--[a-z-]+')
    (( ${#options[@]} > 10 ))
    for option in "${options[@]}"; do grep -qE "^\.B (.*, )?${option//-/\\\\-}( |$)" <<<"$manual"; done
    for section in SYNOPSIS DESCRIPTION OPTIONS NOTES; do grep -q "^\.SH $section$" <<<"$manual"; done
fi

# Each command of the program has its section, and a link of the guides leads to a file.
manual=$(zcat "$work/kestrune-tools/usr/share/man/man1/kestrune-measure.1.gz")
for command in extract explain explain-stereo depth match stereo demo settings; do grep -q "^\.SS $command$" <<<"$manual"; done
grep -q '^\.B \\-\\-calibration' <<<"$manual"
cd "$work/kestrune-doc/usr/share/doc/kestrune-doc"
while IFS=: read -r page link; do
    [[ -e $(dirname "$page")/$link ]] || { echo "$page: no $link"; exit 1; }
done < <(grep -roP --include='*.md' '\]\(\K(?!https?:)[\w./-]+(?=[)#])' .)

if grep --recursive --fixed-strings --files-with-matches -e "$source" -e "$build" "$work"/*/usr; then exit 1; fi
