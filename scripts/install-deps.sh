#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the tests and the demo need. Idempotent: it asks apt
# only for what is missing.
set -euo pipefail
packages=(
  build-essential cmake g++-multilib binutils pkg-config
  openjdk-17-jdk-headless junit5
  libssl-dev openssl libsqlite3-dev sqlite3
  libgtest-dev libgmock-dev googletest
  libcli11-dev nlohmann-json3-dev python3
  softhsm2 opensc libp11-kit-dev p11-kit p11-kit-modules
  lintian
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  echo "Installing: ${missing[*]}"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
fi
