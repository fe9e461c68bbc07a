#!/usr/bin/env bash
# Fails, listing the files, when any C++ file differs from what clang-format makes of it.
#   scripts/check-format.sh          check
#   scripts/check-format.sh --fix    rewrite the files in place
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
mapfile -t files < <(git ls-files -- 'src/*.cpp' 'src/*.h' 'tests/*.cpp' 'tests/*.h' 'bench/*.cpp' 'fuzz/*.cpp')
if [ "${1:-}" = --fix ]; then
    clang-format -i "${files[@]}"
    exit 0
fi
bad=()
for file in "${files[@]}"; do
    clang-format --dry-run -Werror "$file" >/dev/null 2>&1 || bad+=("$file")
done
if [ ${#bad[@]} -gt 0 ]; then
    echo "Not formatted (run scripts/check-format.sh --fix):" >&2
    printf '  %s\n' "${bad[@]}" >&2
    exit 1
fi
echo "format: ${#files[@]} files clean"
