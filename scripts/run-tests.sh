#!/usr/bin/env bash
# Builds everything and runs every test; then builds again with AddressSanitizer and
# UndefinedBehaviorSanitizer and runs the natives, the library and the command line under them
# (LeakSanitizer on wherever no JVM runs).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
jobs="$(nproc)"

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZAV_WERROR=ON > /dev/null
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DZAV_SANITIZE=ON -DZAV_WERROR=ON > /dev/null
cmake --build build-asan -j"$jobs"
ctest --test-dir build-asan --output-on-failure -L "conformance|cli" -j"$jobs"
