#!/usr/bin/env bash
# Fails, naming the files, when a C++ file of ours differs from what
# .clang-format makes of it. Usage: scripts/check-format.sh [--fix]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
fix=0
[ "${1:-}" = "--fix" ] && fix=1

# Tracked files, plus new ones not yet added, so that a check before a
# commit sees what the commit will hold.
mapfile -t files < <( { git ls-files; git ls-files --others --exclude-standard; } |
  grep -E '\.(h|hpp|cc|cpp)$' | sort -u)
[ ${#files[@]} -gt 0 ] || exit 0

if [ "$fix" = 1 ]; then
  clang-format -i "${files[@]}"
  exit 0
fi

bad=()
for f in "${files[@]}"; do
  [ -f "$f" ] || continue
  if ! clang-format --dry-run --Werror "$f" >/dev/null 2>&1; then
    bad+=("$f")
  fi
done
if [ ${#bad[@]} -gt 0 ]; then
  echo "not formatted (run scripts/check-format.sh --fix):" >&2
  printf '  %s\n' "${bad[@]}" >&2
  exit 1
fi
