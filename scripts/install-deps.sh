#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need.
# Safe to run again: it does nothing when everything is already present.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libcurl4-openssl-dev zlib1g-dev nlohmann-json3-dev librapidxml-dev
  libudev-dev libsystemd-dev dbus-daemon python3-dbusmock
  googletest libgtest-dev libgmock-dev libbenchmark-dev libspdlog-dev
  python3 openssl tzdata
  lintian
  clang libclang-rt-14-dev clang-format
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "installing: ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null
