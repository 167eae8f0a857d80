#!/usr/bin/env bash
# Times tolvik against keytool on the same certificates, whole processes side by side: `tolvik
# list` and `tolvik show` on a key database of N entries (default 10,000) against `keytool -list`
# and `keytool -list -alias` on the PKCS12 keystore tolvik exported from it. Prints the median
# wall time of RUNS runs (default 5) and the ratios. The stores are made once, under
# $BUILD_DIR/bench/cli-N (BUILD_DIR defaults to build).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${BUILD_DIR:-build} n=${1:-10000} runs=${RUNS:-5}
cmake --build "$build" --target tolvik -j"$(nproc)" > /dev/null
tolvik=$PWD/$build/bin/tolvik
mkdir -p "$build/bench/cli-$n" && cd "$build/bench/cli-$n"
export TOLVIK_DB=bench.kdb PW=Bench-passw0rd
if [ ! -e bench.p12 ]; then
  echo "making $n certificates and both stores (once) ..."
  rm -f bench.kdb bench.sth
  openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out key.pem 2> /dev/null
  seq 1 "$n" | xargs -P"$(nproc)" -n 200 sh -c \
    'for i; do openssl req -x509 -key key.pem -subj "/CN=cert$i" -days 365 2> /dev/null; done > "part-$1.pem"' sh
  cat part-*.pem > all.pem && rm part-*.pem
  openssl pkcs12 -export -nokeys -in all.pem -out import.p12 -passout env:PW
  "$tolvik" keydb create --password-env PW > /dev/null
  "$tolvik" keydb stash --password-env PW > /dev/null
  "$tolvik" p12 import import.p12 --p12-password-env PW > /dev/null
  "$tolvik" p12 export bench.p12 --p12-password-env PW > /dev/null
fi
label=cert$(( (n + 1) / 2 ))

# ms - the median wall time, in milliseconds, of running the command RUNS times.
ms() {
  local times=() start
  for _ in $(seq "$runs"); do
    start=$(date +%s%N)
    "$@" > /dev/null 2>&1 || { echo "failed: $*" >&2; exit 1; }
    times+=($(( ($(date +%s%N) - start) / 1000000 )))
  done
  printf '%s\n' "${times[@]}" | sort -n | sed -n "$(( (runs + 1) / 2 ))p"
}
keytool=(keytool -list -storetype PKCS12 -keystore bench.p12 -storepass:env PW)
tl=$(ms "$tolvik" list) kl=$(ms "${keytool[@]}")
ts=$(ms "$tolvik" show "$label") ks=$(ms "${keytool[@]}" -alias "$label")
echo "$n entries, median of $runs runs, whole processes (ms)"
printf '%-8s %10s %10s %8s\n' "" tolvik keytool ratio
row() { awk -v what="$1" -v a="$2" -v b="$3" 'BEGIN { printf "%-8s %10d %10d %7.1fx\n", what, a, b, b / a }'; }
row list "$tl" "$kl"
row show "$ts" "$ks"
