#!/usr/bin/env bash
# Installs what Velquin needs on Debian 12 (only what is missing) and builds one configuration.
#   scripts/setup.sh [BUILD_DIR [extra cmake arguments…]]
# Sourced by velquin.sh and run-tests.sh; safe to run again, and quick when nothing changed.
set -euo pipefail

VELQUIN_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

VELQUIN_PACKAGES=(
    build-essential cmake ninja-build pkg-config python3 clang-format
    qt6-base-dev libfftw3-dev libavformat-dev libavcodec-dev libavutil-dev libswresample-dev
    libsndfile1-dev libpulse-dev libxcb1-dev libxcb-xfixes0-dev
    libgtest-dev libgmock-dev libbenchmark-dev libtag1-dev libsqlite3-dev
    pulseaudio pulseaudio-utils xvfb xauth x11-utils ffmpeg clang libclang-rt-14-dev locales time
    trayer xdotool imagemagick openbox wmctrl dbus desktop-file-utils appstream dbus-daemon
    attr acl inotify-tools
    pipewire pipewire-bin pipewire-pulse wireplumber
    mutter xwayland qt6-wayland libwayland-dev sway grim
)

velquin_install_packages() {
    local missing=()
    for pkg in "${VELQUIN_PACKAGES[@]}"; do
        if [ "$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null)" != "install ok installed" ]; then
            missing+=("$pkg")
        fi
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    local sudo=()
    [ "$(id -u)" -eq 0 ] || sudo=(sudo)
    echo "Installing: ${missing[*]}" >&2
    "${sudo[@]}" apt-get update -qq
    DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends \
        -o DPkg::Lock::Timeout=600 "${missing[@]}" >/dev/null
}

# velquin_build DIR [cmake arguments…]
velquin_build() {
    local dir=$1
    shift
    if [ ! -f "$dir/build.ninja" ]; then
        cmake -S "$VELQUIN_ROOT" -B "$dir" -G Ninja "$@" >/dev/null
    fi
    cmake --build "$dir" -j "$(nproc)"
}

if [ "${BASH_SOURCE[0]}" = "$0" ]; then
    velquin_install_packages
    velquin_build "${1:-$VELQUIN_ROOT/build}" "${@:2}"
fi
