#!/usr/bin/env bash
# Builds everything and runs every test; then builds again with AddressSanitizer and
# UndefinedBehaviorSanitizer and runs the natives, the library and the command line under them
# (LeakSanitizer on wherever no JVM runs); runs each fuzz target for a short while (clang,
# libFuzzer, from seeds made by openssl); then builds for 32-bit x86 and runs every test there in
# the i386 JVM, with files crossing between the two builds.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh --i386
jobs="$(nproc)"

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZAV_WERROR=ON > /dev/null
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DZAV_SANITIZE=ON -DZAV_WERROR=ON > /dev/null
cmake --build build-asan -j"$jobs"
ctest --test-dir build-asan --output-on-failure -L "in-process|cli" -j"$jobs"

CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZAV_FUZZ=ON \
  -DZAV_WERROR=ON -DZAV_FUZZ_SECONDS="${ZAV_FUZZ_SECONDS:-15}" > /dev/null
cmake --build build-fuzz --target fuzz -j"$jobs"
ctest --test-dir build-fuzz --output-on-failure -L fuzz -j"$jobs"

cmake -S . -B build-i386 --toolchain cmake/i386-linux-gnu.cmake -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DZAV_WERROR=ON -DZAV_OTHER_TOLVIK="$PWD/build/bin/tolvik" > /dev/null
cmake --build build-i386 -j"$jobs"
ctest --test-dir build-i386 --output-on-failure -j"$jobs"
