#!/usr/bin/env bash
# Builds tolvik and runs a short session with it in a fresh directory: a key database, a
# self-signed CA, a server request signed by the CA and received, the list, and a PKCS#12 export
# that openssl and keytool read. Every command is printed before it runs.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build build --target tolvik -j"$(nproc)" > /dev/null
PATH=$PWD/build/bin:$PATH
cd "$(mktemp -d "${TMPDIR:-/tmp}/tolvik-demo.XXXXXX")"
echo "working directory: $PWD"
export TOLVIK_DB=demo.kdb KDB_PASSWORD=Demo-passw0rd P12_PASSWORD=Export-passw0rd
show() { echo; echo "\$ $*"; "$@"; }
show tolvik keydb create --password-env KDB_PASSWORD
show tolvik keydb stash --password-env KDB_PASSWORD
show tolvik cert selfsign demo-ca --subject "CN=Tolvik Demo CA,O=Norvex,C=NO" --out ca.pem
show tolvik cert request server --subject "CN=server.demo.test,O=Norvex,C=NO" \
  --san DNS:server.demo.test,DNS:localhost --out server.csr
show tolvik cert sign --issuer demo-ca --in server.csr --out server.pem
show tolvik cert receive --in server.pem --default
show tolvik list
show tolvik show server
show tolvik p12 export server.p12 server --p12-password-env P12_PASSWORD
show openssl verify -CAfile ca.pem server.pem
show keytool -list -storetype PKCS12 -keystore server.p12 -storepass:env P12_PASSWORD
