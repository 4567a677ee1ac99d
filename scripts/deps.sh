#!/usr/bin/env bash
# Installs what the build needs from Debian's packages, when this user may;
# otherwise says what is missing and how to install it.
set -euo pipefail

packages=(cmake make g++ libgtest-dev libgmock-dev mingw-w64 g++-mingw-w64-x86-64 iproute2 util-linux
          clang libclang-rt-14-dev)  # clang and libFuzzer: the fuzz targets
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing the missing build packages: ${missing[*]}"
if [ "$(id -u)" -eq 0 ]; then
    apt=(apt-get)
elif command -v sudo >/dev/null 2>&1 && sudo -n true 2>/dev/null; then
    apt=(sudo apt-get)
else
    echo "These Debian packages are missing and this user cannot install them:" >&2
    echo "    sudo apt-get install ${missing[*]}" >&2
    exit 1
fi
export DEBIAN_FRONTEND=noninteractive
"${apt[@]}" update -qq
"${apt[@]}" install -y -qq "${missing[@]}" >/dev/null
