#!/usr/bin/env bash
# seeds.sh DIR TOLVIK - seed inputs for each fuzz target, made by openssl (and a key database
# made by tolvik), under DIR/<target>/.
set -euo pipefail
dir=$1 tolvik=$2
pw=fuzz-Passw0rd
mkdir -p "$dir" && cd "$dir"
[ -e done ] && exit 0
mkdir -p work certificate pkcs7 pkcs8 pkcs10 pkcs12 base64 keydb
cd work
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout ca.key -subj "/CN=Seed CA/O=Norvex" \
  -days 30 -addext "basicConstraints=critical,CA:TRUE" -out ca.pem 2> /dev/null
openssl req -newkey rsa:1024 -nodes -keyout leaf.key -subj "/CN=leaf.seed.test" \
  -addext "subjectAltName=DNS:leaf.seed.test,IP:10.0.0.1" -out leaf.csr 2> /dev/null
openssl x509 -req -in leaf.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 10 -copy_extensions copy \
  -out leaf.pem 2> /dev/null
cat leaf.pem ca.pem > chain.pem
openssl x509 -in ca.pem -outform DER -out ../certificate/ca.der
cp ca.pem leaf.pem ../certificate/
openssl crl2pkcs7 -nocrl -certfile chain.pem -outform DER -out ../pkcs7/chain.p7b
openssl crl2pkcs7 -nocrl -certfile chain.pem -out ../pkcs7/chain.p7b.pem
cp chain.pem ../pkcs7/
openssl pkcs8 -topk8 -in leaf.key -v2 aes-256-cbc -iter 2048 -passout pass:$pw -outform DER -out ../pkcs8/leaf.p8
openssl pkcs8 -topk8 -in ca.key -v2 aes-256-cbc -iter 2048 -passout pass:$pw -out ../pkcs8/ca.p8.pem
openssl pkcs8 -topk8 -nocrypt -in leaf.key -outform DER -out ../pkcs8/leaf-plain.p8
openssl genpkey -algorithm ed25519 -outform DER -out ../pkcs8/ed25519-plain.p8
openssl req -in leaf.csr -outform DER -out ../pkcs10/leaf.der
cp leaf.csr ../pkcs10/leaf.pem
openssl pkcs12 -export -in leaf.pem -inkey leaf.key -certfile ca.pem -name leaf -iter 2048 -macalg sha256 \
  -passout pass:$pw -out ../pkcs12/leaf.p12
openssl pkcs12 -export -nokeys -in ca.pem -name ca -iter 2048 -passout pass:$pw -out ../pkcs12/ca.p12
openssl pkcs12 -export -in leaf.pem -inkey leaf.key -certfile ca.pem -name leaf -keypbe NONE -certpbe NONE \
  -iter 1 -passout pass:$pw -out ../pkcs12/plain.p12
cp ca.pem ../base64/
openssl base64 -in ../certificate/ca.der -out ../base64/ca.b64
PW=$pw "$tolvik" keydb create --db seed.kdb --password-env PW > /dev/null
PW=$pw "$tolvik" cert selfsign root --db seed.kdb --subject "CN=Seed Root" --key-size 256 --password-env PW > /dev/null
PW=$pw "$tolvik" cert request web --db seed.kdb --subject "CN=web.seed.test" --key-size 256 --out web.csr --password-env PW > /dev/null
PW=$pw "$tolvik" cert add-ca other --db seed.kdb --in ca.pem --password-env PW > /dev/null
# The key database target takes 'R' and a whole file, or a program of edits of its own database.
{ printf R; cat seed.kdb; } > ../keydb/seed.kdb
printf '\000\000\001\000\000' > ../keydb/label.edit
printf '\005\000\000\002' > ../keydb/delete.edit
printf '\011\000' > ../keydb/trigger.edit
cd .. && rm -rf work && touch done
