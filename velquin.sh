#!/usr/bin/env bash
# Runs Velquin; the first run installs the system packages and builds it.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/scripts/setup.sh"
velquin_install_packages
velquin_build "$VELQUIN_ROOT/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >&2
exec "$VELQUIN_ROOT/build/velquin" "$@"
