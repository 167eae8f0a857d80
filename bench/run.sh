#!/usr/bin/env bash
# Builds the key store benchmark and runs it: our key database through the Java binding against
# the JDK's PKCS12 KeyStore. Arguments are store sizes (default: 10 1000 10000; sizes above 10,000
# are ours alone, filled by bench_store, e.g. `bench/run.sh 10000 1000000`). Set BUILD_DIR to use
# another build directory than build/.
set -euo pipefail
cd "$(dirname "$0")/.."
build="${BUILD_DIR:-build}"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build "$build" --target bench_keystore bench_store -j"$(nproc)" > /dev/null
exec java -Djava.library.path="$build/lib" -Dzav.bench.filler="$build/bench/bench_store" \
  -cp "$build/java/tolvik.jar:$build/bench/bench-keystore.jar" \
  com.norvex.zav.tolvik.bench.KeyStoreBench "$@"
