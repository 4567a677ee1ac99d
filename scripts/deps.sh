#!/usr/bin/env bash
# Installs what the build needs from Debian's packages, when this user may;
# otherwise says what is missing and how to install it.
#
#   scripts/deps.sh          the build's packages
#   scripts/deps.sh --wine   and Wine, the stand-in for Windows on which the
#                            tests run KVT64.DLL, with a virtual X display and
#                            the tools that take screenshots of its windows, and
#                            tshark, the protocol analyser that reads the
#                            NetBIOS datagrams, and CUPS, under which the tests
#                            run the kvt backend.  Without them those tests are
#                            skipped with a notice (Wine's fail instead when
#                            KVT_REQUIRE_WINE=1).
set -euo pipefail

packages=(cmake make g++ libgtest-dev libgmock-dev mingw-w64 g++-mingw-w64-x86-64 binutils-mingw-w64-x86-64 iproute2 util-linux
          pkg-config libncurses-dev tmux)
wine_packages=(wine wine64 fonts-wine xvfb x11-apps x11-utils imagemagick)
analyser_packages=(tshark cups cups-daemon cups-client)

missing_from() {
    local p
    for p in "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || echo "$p"
    done
}

mapfile -t missing < <(missing_from "${packages[@]}")
wine_missing=()
analyser_missing=()
[ "${1:-}" = "--wine" ] && mapfile -t wine_missing < <(missing_from "${wine_packages[@]}")
[ "${1:-}" = "--wine" ] && mapfile -t analyser_missing < <(missing_from "${analyser_packages[@]}")
[ ${#missing[@]} -eq 0 ] && [ ${#wine_missing[@]} -eq 0 ] && [ ${#analyser_missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
    as=()
    apt=(apt-get)
elif command -v sudo >/dev/null 2>&1 && sudo -n true 2>/dev/null; then
    as=(sudo)
    apt=(sudo apt-get)
else
    if [ ${#missing[@]} -gt 0 ]; then
        echo "These Debian packages are missing and this user cannot install them:" >&2
        echo "    sudo apt-get install ${missing[*]} ${wine_missing[*]} ${analyser_missing[*]}" >&2
        exit 1
    fi
    if [ ${#analyser_missing[@]} -gt 0 ]; then
        echo "NOTICE: ${analyser_missing[*]} not installed and this user cannot install them, so the" >&2
        echo "tests that want them (the protocol analyser, CUPS) are skipped.  To run them:" >&2
        echo "    sudo apt-get install ${analyser_missing[*]}" >&2
    fi
    [ ${#wine_missing[@]} -eq 0 ] && exit 0
    echo "NOTICE: Wine is not installed and this user cannot install it, so the tests of" >&2
    echo "KVT64.DLL under Wine are skipped.  To run them: sudo apt-get install ${wine_missing[*]}" >&2
    [ "${KVT_REQUIRE_WINE:-0}" = 1 ] && exit 1
    exit 0
fi
export DEBIAN_FRONTEND=noninteractive
"${apt[@]}" update -qq
if [ ${#missing[@]} -gt 0 ]; then
    echo "Installing the missing build packages: ${missing[*]}"
    "${apt[@]}" install -y -qq "${missing[@]}" >/dev/null
fi
if [ ${#wine_missing[@]} -gt 0 ]; then
    # Wine's recommended packages (fonts, sound, the 32-bit loader...) are not
    # needed to run a 64-bit DLL without a display.
    echo "Installing Wine for the tests of KVT64.DLL: ${wine_missing[*]}"
    "${apt[@]}" install -y -qq --no-install-recommends "${wine_missing[@]}" >/dev/null
fi
if [ ${#analyser_missing[@]} -gt 0 ]; then
    echo "Installing what the tests run beside the monitor: ${analyser_missing[*]}"
    # CUPS's packages would start the system's print service; the tests start
    # a cupsd of their own, and the system's is never started.
    guard=
    if [ ! -e /usr/sbin/policy-rc.d ]; then
        guard=/usr/sbin/policy-rc.d
        printf '#!/bin/sh\nexit 101\n' | "${as[@]}" tee $guard >/dev/null
        "${as[@]}" chmod 755 $guard
    fi
    "${apt[@]}" install -y -qq --no-install-recommends "${analyser_missing[@]}" >/dev/null
    if [ -n "$guard" ]; then "${as[@]}" rm -f $guard; fi
fi
