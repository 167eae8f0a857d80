#!/usr/bin/env bash
# Builds everything and runs the demo through the Java binding, the bridge and our library.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build build -j"$(nproc)"
mkdir -p build/demo
cd build/demo
# The token leg: a fresh SoftHSM2 token "demo" (user PIN 1234) in a configuration of its own.
token=()
module=/usr/lib/softhsm/libsofthsm2.so
if [ -e "$module" ] && command -v softhsm2-util > /dev/null; then
  rm -rf softhsm && mkdir -p softhsm/tokens
  echo "directories.tokendir = $PWD/softhsm/tokens" > softhsm/softhsm2.conf
  export SOFTHSM2_CONF=$PWD/softhsm/softhsm2.conf
  softhsm2-util --init-token --free --label demo --pin 1234 --so-pin 5678 > /dev/null
  token=(-Dzav.demo.module="$module")
fi
exec java -Djava.library.path=../lib "${token[@]}" -cp ../java/tolvik.jar \
  com.norvex.zav.tolvik.demo.Main "$@"
