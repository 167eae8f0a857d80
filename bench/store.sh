#!/usr/bin/env bash
# Times open, read, add (quiet and with another process writing to the disk), listing and the
# password change on key databases of 10, 1,000, 10,000 and 100,000 entries, beside NSS's sql:
# database for lookups; `bench/store.sh million` adds 1,000,000 (several minutes more). Prints one
# row per size (bench/store/store_bench.cpp says what each column is).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${BUILD_DIR:-build}
cmake --build "$build" --target bench_store -j"$(nproc)" > /dev/null
sizes=(10 1000 10000 100000)
[ "${1:-}" = million ] && sizes+=(1000000)
mkdir -p "$build/bench/store"
"$build/bench/bench_store" "$PWD/$build/bench/store" "${sizes[@]}"
