#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the tests and the demo need. Idempotent: it asks apt
# only for what is missing. With --i386 it also installs what a 32-bit x86 build and its tests
# need (multiarch i386 libraries and JDK).
set -euo pipefail
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
packages=(
  build-essential cmake g++-multilib binutils pkg-config
  openjdk-17-jdk-headless junit5
  libssl-dev openssl libsqlite3-dev sqlite3
  libgtest-dev libgmock-dev googletest
  libcli11-dev nlohmann-json3-dev python3
  softhsm2 opensc libp11-kit-dev p11-kit p11-kit-modules
  lintian clang libclang-rt-14-dev
  libnss3-dev libnss3-tools python3-jsonschema zsh fish
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
fi

[ "${1:-}" = "--i386" ] || exit 0
i386=(libssl-dev libsqlite3-dev libp11-kit-dev p11-kit-modules libgtest-dev libgmock-dev openjdk-17-jdk-headless)
have=1
for p in "${i386[@]}"; do
  dpkg-query -W -f='${Status}' "$p:i386" 2>/dev/null | grep -q "install ok installed" || have=0
done
[ "$have" -eq 1 ] && exit 0
if ! dpkg --print-foreign-architectures | grep -qx i386; then $sudo dpkg --add-architecture i386; fi
# An index that fails to download (a mirror in sync) leaves the older one in use.
$sudo apt-get update -qq || true
# A library installed for both architectures must have one version on both. The i386 index may
# lag behind the amd64 one, so every package apt names in a conflict is pinned, on both
# architectures, to the version the i386 index offers.
candidate() { apt-cache policy "$1" | awk '/Candidate:/ {print $2}'; }
pins=()
pin() {
  local v
  v=$(candidate "$1:i386")
  [ -n "$v" ] && [ "$v" != "(none)" ] || return 0
  pins+=("$1:i386=$v")
  if dpkg-query -W -f='${Status}' "$1:amd64" 2>/dev/null | grep -q "install ok installed"; then
    pins+=("$1:amd64=$v")
  fi
}
for p in "${i386[@]}"; do pin "$p"; done
for round in $(seq 1 30); do
  if out=$(apt-get install -s --allow-downgrades "${pins[@]}" 2>&1); then break; fi
  more=$(echo "$out" | grep -oE "Depends: [a-z0-9.+-]+" | awk '{print $2}' | sort -u)
  [ -n "$more" ] || { echo "$out" | tail -20; exit 1; }
  for p in $more; do pin "$p"; done
done
echo "Installing for i386: ${i386[*]}"
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --allow-downgrades "${pins[@]}"
