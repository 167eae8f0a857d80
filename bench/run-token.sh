#!/usr/bin/env bash
# The token benchmark: open a SoftHSM2 token, list its labels and read one key, on a token
# holding N certificates (default 100), through the Java binding (ours), as a minimal C program
# making the same PKCS#11 calls (the floor), and with pkcs11-tool --list-objects. Prints the
# medians and the ratios. Set BUILD_DIR to use another build directory than build/.
set -euo pipefail
cd "$(dirname "$0")/.."
build="${BUILD_DIR:-build}"
count="${1:-100}"
runs="${2:-20}"
module=/usr/lib/softhsm/libsofthsm2.so
cmake -S . -B "$build" > /dev/null
cmake --build "$build" --target bench_keystore bench_token_floor -j"$(nproc)" > /dev/null
work="$build/bench/token-work"
rm -rf "$work" && mkdir -p "$work/tokens"
echo "directories.tokendir = $PWD/$work/tokens" > "$work/softhsm2.conf"
export SOFTHSM2_CONF="$PWD/$work/softhsm2.conf"
softhsm2-util --init-token --free --label bench --pin 1234 --so-pin 5678 > /dev/null
ours=$(java -Djava.library.path="$build/lib" \
  -cp "$build/java/tolvik.jar:$build/bench/bench-keystore.jar" \
  com.norvex.zav.tolvik.bench.TokenBench "$module" bench 1234 "$count" "$runs")
floor=$("$build/bench/bench_token_floor" "$module" bench 1234 key-7 "$runs")
times=()
for _ in $(seq "$runs"); do
  start=$(date +%s%N)
  pkcs11-tool --module "$module" --token-label bench --login --pin 1234 --list-objects > /dev/null
  times+=($(( ($(date +%s%N) - start) / 1000 )))
done
tool=$(printf '%s\n' "${times[@]}" | sort -n | sed -n "$(( runs / 2 + 1 ))p")
printf '%-32s %10s\n' "token with $count certificates" "median us"
printf '%-32s %10s\n' "floor (C, same PKCS#11 calls)" "$floor" "ours (Java binding)" "$ours" \
  "pkcs11-tool --list-objects" "$tool"
awk -v o="$ours" -v f="$floor" -v t="$tool" \
  'BEGIN { printf "ours / floor = %.2f, pkcs11-tool / ours = %.1f\n", o / f, t / o }'
