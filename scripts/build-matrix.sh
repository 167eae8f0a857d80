#!/usr/bin/env bash
# Builds everything in each build type (Debug, Release, RelWithDebInfo, MinSizeRel) with GCC and
# with clang, warnings as errors, and prints one line per build: passed, or the first error.
# Builds go to build-matrix/<compiler>-<type>. Arguments narrow the build types, COMPILERS
# (default "gcc clang") the compilers.
set -uo pipefail
cd "$(dirname "$0")/.."
mkdir -p build-matrix
types=("$@")
[ ${#types[@]} -gt 0 ] || types=(Debug Release RelWithDebInfo MinSizeRel)
for cc in ${COMPILERS:-gcc clang}; do
  cxx=g++
  [ "$cc" = clang ] && cxx=clang++
  for type in "${types[@]}"; do
    dir=build-matrix/$cc-$type
    start=$(date +%s)
    if CC=$cc CXX=$cxx cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE="$type" -DZAV_WERROR=ON > "$dir.log" 2>&1 &&
       cmake --build "$dir" -j"$(nproc)" >> "$dir.log" 2>&1; then
      result=passed
    else
      result="failed: $(grep -m1 -E 'error|Error' "$dir.log")"
    fi
    printf '%-6s %-15s %4ss  %s\n' "$cc" "$type" "$(( $(date +%s) - start ))" "$result"
  done
done
