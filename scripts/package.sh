#!/usr/bin/env bash
# Builds the Debian package in build/ (velquin_VERSION_ARCH.deb), after the same set-up as velquin.sh:
#   scripts/package.sh && sudo apt install ./build/velquin_*.deb
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"

build="$VELQUIN_ROOT/build"
velquin_install_packages
velquin_build "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo
cd "$build"
cpack -G DEB >/dev/null
ls "$build"/velquin_*.deb
