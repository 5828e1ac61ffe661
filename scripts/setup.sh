#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# Tells which packages of Debian 12 or 13 are missing and installs them. Without arguments: what the library, the program, Python,
# the tests, the benchmarks, the packages and the reference need. `clang` adds the compiler of the sanitizers and fuzzers,
# `lint` what scripts/lint.sh needs.
# Works as root, or through sudo; does nothing where everything is there. KESTRUNE_SETUP=never only tells.
set -euo pipefail

packages=(g++ cmake ninja-build pkg-config libopencv-dev libopencv-contrib-dev libeigen3-dev libcli11-dev libfmt-dev
          nlohmann-json3-dev libjpeg-dev libpng-dev libtiff-dev libisal-dev libyaml-cpp-dev libgtest-dev libbenchmark-dev
          python3-dev pybind11-dev python3-numpy python3-pytest python3-distributed python3-pandas
          dpkg-dev file doxygen locales)  # locales: a test makes one whose numbers have a comma
clang=(clang libomp-dev libclang-rt-dev llvm)  # llvm: names instead of addresses in the sanitizer's reports

for extra in "$@"; do
    case $extra in
        clang) packages+=("${clang[@]}") ;;
        lint) packages+=("${clang[@]}" clang-format clang-tidy shellcheck flake8 mypy) ;;
        *) echo "usage: scripts/setup.sh [clang] [lint]" >&2; exit 2 ;;
    esac
done

missing=()
for package in "${packages[@]}"; do
    state=$(dpkg-query --show --showformat='${db:Status-Status}' "$package" 2>/dev/null || true)
    [[ $state == installed* ]] || missing+=("$package")
done
(( ${#missing[@]} )) || exit 0

echo "Missing packages: ${missing[*]}"
if [[ ${KESTRUNE_SETUP:-} == never ]]; then exit 1; fi
as_root=()
if (( EUID != 0 )); then
    command -v sudo >/dev/null || { echo "Not root and no sudo here. As root: apt-get install ${missing[*]}" >&2; exit 1; }
    as_root=(sudo)
fi
echo "Installing them with apt-get; KESTRUNE_SETUP=never stops here instead"
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
    -o Dpkg::Use-Pty=0 "${missing[@]}" >/dev/null
