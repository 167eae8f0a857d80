#!/usr/bin/env bash
# Times tolvik against keytool and NSS's certutil on the same certificates, whole processes side
# by side: `tolvik list` and `tolvik show` on a key database of N entries (default 10,000) against
# `keytool -list` and `keytool -list -alias` on the PKCS12 keystore tolvik exported from it, and
# `certutil -L` and `certutil -L -n` on an NSS database (sql:) that imported the same file. Prints
# the median wall time of RUNS runs (default 5), the ratios, and whether `tolvik list` is at least
# 100 times faster than `keytool -list`. Also times `list --json` and `--format prometheus`, which
# decode every certificate. The stores are made once, under $BUILD_DIR/bench/cli-N (BUILD_DIR
# defaults to build).
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
  # An import trusts no certificate the file does not mark; keytool lists trusted ones only.
  seq 1 "$n" | xargs -I{} "$tolvik" trust cert{} on > /dev/null
  "$tolvik" p12 export bench.p12 --p12-password-env PW > /dev/null
fi
if [ ! -e nss/cert9.db ]; then
  rm -rf nss && mkdir nss && certutil -N -d sql:nss --empty-password
  pk12util -i bench.p12 -d sql:nss -W "$PW" > /dev/null
fi
label=cert$(( (n + 1) / 2 ))

# us - the median wall time, in microseconds, of running the command RUNS times (read from
# bash's clock, so that no process started to read the time is counted).
us() {
  local times=() start end
  for _ in $(seq "$runs"); do
    start=${EPOCHREALTIME/./}
    "$@" > /dev/null 2>&1 || { echo "failed: $*" >&2; exit 1; }
    end=${EPOCHREALTIME/./}
    times+=($(( end - start )))
  done
  printf '%s\n' "${times[@]}" | sort -n | sed -n "$(( (runs + 1) / 2 ))p"
}
keytool=(keytool -list -storetype PKCS12 -keystore bench.p12 -storepass:env PW)
tl=$(us "$tolvik" list) kl=$(us "${keytool[@]}") cl=$(us certutil -L -d sql:nss)
ts=$(us "$tolvik" show "$label") ks=$(us "${keytool[@]}" -alias "$label") cs=$(us certutil -L -d sql:nss -n "$label")
tj=$(us "$tolvik" list --json) tp=$(us "$tolvik" list --format prometheus)
echo "$n entries, median of $runs runs, whole processes (ms)"
printf '%-8s %10s %10s %10s %9s %9s\n' "" tolvik keytool certutil keytool/ certutil/
row() {
  awk -v what="$1" -v a="$2" -v b="$3" -v c="$4" \
    'BEGIN { printf "%-8s %10.1f %10.1f %10.1f %8.1fx %8.1fx\n", what, a / 1000, b / 1000, c / 1000, b / a, c / a }'
}
row list "$tl" "$kl" "$cl"
row show "$ts" "$ks" "$cs"
awk -v j="$tj" -v p="$tp" 'BEGIN { printf "tolvik list --json %.1f ms, --format prometheus %.1f ms (every certificate decoded)\n", j / 1000, p / 1000 }'
awk -v a="$tl" -v b="$kl" 'BEGIN { r = b / a;
  printf "goal: tolvik list at least 100x faster than keytool -list: %.0fx, %s\n", r, (r >= 100 ? "met" : "NOT met") }'
