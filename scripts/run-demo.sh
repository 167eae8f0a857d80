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
java -Djava.library.path=../lib "${token[@]}" -cp ../java/tolvik.jar \
  com.norvex.zav.tolvik.demo.Main "$@"
[ ${#token[@]} -gt 0 ] || exit 0

# A CA whose key lives on the token signs a server certificate for a key database; openssl and
# pkcs11-tool check the result. (The Java binding issues with file keys; tolvik with either.)
echo "== token CA: a CA key on the SoftHSM2 token signs a server certificate for a key database"
T=../bin/tolvik
export PIN=1234 PW=Demo-Token-leg-9
rm -f tokenleg.kdb tokenleg.sth
set -x
$T token selfsign token-ca --subject "CN=Tolvik Token CA,O=Norvex" --key-size 256 \
  -m "$module" -t demo --pin-env PIN --out token-ca.pem
$T keydb create --db tokenleg.kdb --password-env PW
$T cert request web --db tokenleg.kdb --subject "CN=web.demo.test" --san DNS:web.demo.test \
  --out web.csr --password-env PW
$T token sign --issuer token-ca --in web.csr --out web.pem -m "$module" -t demo --pin-env PIN
$T cert receive --db tokenleg.kdb --in web.pem --password-env PW
openssl verify -CAfile token-ca.pem web.pem
pkcs11-tool --module "$module" --token-label demo --login --pin "$PIN" --list-objects 2> /dev/null |
  grep -A3 "token-ca"
$T list --db tokenleg.kdb --password-env PW
{ set +x; } 2> /dev/null
echo "token leg: every step worked"
