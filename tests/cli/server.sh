# A server key from request to received certificate, then renewed: openssl checks the request,
# the issued certificate and its chain; the names asked for are copied into the certificate.
. "$CLI_TESTS/lib.sh"
export TOLVIK_DB=server.kdb
ok keydb create --password-env PW
ok cert selfsign ca --subject "CN=Test CA,C=NO" --out ca.pem --password-env PW
ok cert request srv --subject "CN=srv.test,O=Norvex,C=NO" --san DNS:srv.test,IP:10.0.0.1 \
  --key-size 384 --out srv.csr --password-env PW
openssl req -in srv.csr -verify -noout -text > text 2>&1
has text "verify OK"
has text "ASN1 OID: secp384r1"
ok list --json --password-env PW
json "[(r['label'], r['kind'], r['key_type'], r['key_size']) for r in d['entries']] == [('ca', 'personal', 'RSA', 2048), ('srv', 'request', 'EC', 384)]"
json "d['entries'][1]['san'] == ['DNS:srv.test', 'IP:10.0.0.1'] and d['entries'][1]['not_after'] is None"
ok show srv --password-env PW
has out "^kind +request$"
has out "^subject +CN=srv.test, O=Norvex, C=NO$"
ok show srv --pem --password-env PW
openssl req -in out -noout -subject > text
has text "subject=C = NO, O = Norvex, CN = srv.test"

ok cert sign --issuer ca --in srv.csr --out srv.pem --serial 1234 --days 10 --sig sha384 --password-env PW
openssl verify -CAfile ca.pem srv.pem > text 2>&1
has text "srv.pem: OK"
openssl x509 -in srv.pem -noout -serial -ext subjectAltName -text > text
has text "serial=04D2"
has text "DNS:srv.test, IP Address:10.0.0.1"
has text "Signature Algorithm: sha384WithRSAEncryption"
ok cert receive --in srv.pem --default --json --password-env PW
json "d['changes'] == [{'action': 'update', 'label': 'srv', 'kind': 'personal', 'default': True}]"
ok show srv --json --password-env PW
json "d['kind'] == 'personal' and d['default'] and not d['trusted'] and d['chain'] == ['CN=Test CA, C=NO']"
ok cert validate srv --password-env PW
has out "^valid +yes$"

# renewal: a request again for the same key, signed, recognised and received in place
ok cert request srv --out again.csr --password-env PW
ok cert sign --issuer ca --in again.csr --out again.pem --serial 0x99 --password-env PW
ok cert renew-check --in again.pem --json --password-env PW
json "d['renewal']"
run cert renew-check --in srv.csr --password-env PW
has err "^tolvik: cannot check srv.csr: 2 ZAVKM_ERR_ASN \(the data does not decode"
openssl req -x509 -newkey rsa:2048 -nodes -keyout o.key -subj /CN=o -days 2 -out other.pem 2> /dev/null
ok cert renew-check --in other.pem --json --password-env PW
json "not d['renewal']"
ok cert renew --in again.pem --password-env PW
has out "^updated srv \(personal\)$"
ok cert extract srv --out srv.der --der --password-env PW
[ "$(openssl x509 -inform DER -in srv.der -noout -serial)" = "serial=99" ] || fail "the renewal was not stored"
ok keydb info --json --password-env PW
json "d['default'] == 'srv' and d['next_expiry']['label'] == 'srv' and d['entries']['request'] == 0"
ok cert request leak --subject CN=leak --san DNS:leak.test -k 256 --out l.csr --password-env PW
ok show srv --password-env PW
finish
