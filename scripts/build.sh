#!/usr/bin/env bash
# Configures and builds the project. Usage: scripts/build.sh [address|thread]
# The build goes to build/ (build-asan/, build-tsan/ for sanitizer builds).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
san=${1:-}
case "$san" in
  "") dir="$root/build" ;;
  address) dir="$root/build-asan" ;;
  thread) dir="$root/build-tsan" ;;
  *) echo "usage: $0 [address|thread]" >&2; exit 2 ;;
esac
"$root/scripts/install-deps.sh"
cmake -S "$root" -B "$dir" -DSANITIZE="$san" >/dev/null
cmake --build "$dir" -j"$(nproc)"
echo "$dir"
