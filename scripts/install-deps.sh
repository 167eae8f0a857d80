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

# run32 - a kernel built without 32-bit x86 support cannot start the i386 build's programs
# ("Exec format error"); they then run under qemu's user-mode emulation, registered with the
# kernel's binfmt_misc so that every i386 program (the JVM, tests, tolvik) starts through it.
run32() {
  local probe
  probe=$(mktemp -d)
  printf 'int main(void) { return 0; }\n' > "$probe/p.c"
  if gcc -m32 "$probe/p.c" -o "$probe/p" 2> /dev/null && ! "$probe/p" 2> /dev/null; then
    dpkg-query -W -f='${Status}' qemu-user-static 2> /dev/null | grep -q "install ok installed" ||
      { $sudo apt-get update -qq || true; DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq qemu-user-static; }
    [ -e /proc/sys/fs/binfmt_misc/register ] ||
      $sudo mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc
    if [ ! -e /proc/sys/fs/binfmt_misc/qemu-i386 ]; then
      echo "Running i386 programs through qemu-i386-static (this kernel runs no 32-bit x86 code)"
      printf '%s' ':qemu-i386:M::\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x03\x00:\xff\xff\xff\xff\xff\xfe\xfe\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff:/usr/bin/qemu-i386-static:OCF' |
        $sudo tee /proc/sys/fs/binfmt_misc/register > /dev/null
    fi
    "$probe/p" || { echo "i386 programs do not start on this machine"; rm -rf "$probe"; exit 1; }
  fi
  rm -rf "$probe"
}
if [ "$have" -eq 1 ]; then run32; exit 0; fi
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
run32
