#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole suite.
# Usage: scripts/test.sh [address|thread]   (sanitizer builds are optional)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=$("$root/scripts/build.sh" "$@" | tail -n 1)
cd "$dir"
ctest --output-on-failure --timeout 600 -j"$(nproc)"
