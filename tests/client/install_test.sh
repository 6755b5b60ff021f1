#!/usr/bin/env bash
# Installs the build into a scratch DESTDIR under the prefix /usr and checks
# what comes out: the client, which runs, and the systemd-tmpfiles entry for
# the shared data folder. As root, the entry is then applied to
# a scratch root with the group of its own /etc/group, and the folder it makes
# is checked; without root or systemd-tmpfiles that part is skipped (77).
# Usage: install_test.sh CMAKE BUILD_DIR GROUP
set -euo pipefail
cmake=$1
build=$2
group=$3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail() {
  echo "FAIL: $*" >&2
  exit 1
}

DESTDIR="$tmp/dest" "$cmake" --install "$build" --prefix /usr >/dev/null
# The client's two files; the rest of the product is checked by tests/tool.
files=$(cd "$tmp/dest" && find . ! -type d | grep -e qvclient -e vantshrd.conf | sort)
[ "$files" = $'./usr/bin/qvclient\n./usr/lib/tmpfiles.d/vantshrd.conf' ] ||
  fail "installed: $files"
client="$tmp/dest/usr/bin/qvclient"
[ -x "$client" ] || fail "qvclient is not executable"
identity=$(VANTSHRD_DIR="$tmp/data" "$client" --version)
[ "${identity%%$'\n'*}" = "schema: 00000005" ] || fail "qvclient --version: $identity"
entry="$tmp/dest/usr/lib/tmpfiles.d/vantshrd.conf"
lines=$(grep -v -e '^#' -e '^$' "$entry")
[ "$lines" = "d /var/lib/vantshrd 2775 root $group -" ] || fail "entry: $lines"

if [ "$(id -u)" -ne 0 ] || ! command -v systemd-tmpfiles >/dev/null; then
  echo "entry not applied: needs root and systemd-tmpfiles"
  exit 77
fi
root="$tmp/root"
mkdir -p "$root/etc"
echo "root:x:0:0:root:/root:/bin/sh" >"$root/etc/passwd"
echo "$group:x:4242:" >"$root/etc/group"
systemd-tmpfiles --create --root="$root" "$entry"
made=$(stat -c '%a %u %g' "$root/var/lib/vantshrd")
[ "$made" = "2775 0 4242" ] || fail "folder made by the entry: $made"
