#!/usr/bin/env bash
# Builds everything and runs the demo through the Java binding, the bridge and our library.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build build -j"$(nproc)"
mkdir -p build/demo
cd build/demo
exec java -Djava.library.path=../lib -cp ../java/tolvik.jar \
  com.norvex.zav.tolvik.demo.Main "$@"
