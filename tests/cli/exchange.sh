# Keys leaving and coming back: PKCS#12 read by keytool and openssl and imported again, the
# keyring conversion both ways, and a private key encrypted and decrypted as PKCS#8.
. "$CLI_TESTS/lib.sh"
ok keydb create --password-env PW
ok cert selfsign ca --subject "CN=Test CA,C=NO" --password-env PW
openssl req -x509 -newkey rsa:2048 -nodes -keyout other.key -subj /CN=Other -days 2 -out other.pem 2> /dev/null
ok cert add-ca "other ☺😀" --in other.pem --password-env PW
ok p12 export one.p12 ca --p12-password-env P12 --password-env PW
ok p12 export all.p12 --p12-password-env P12 --password-env PW
keytool -list -storetype PKCS12 -keystore all.p12 -storepass "$P12" > text 2>&1
has text "^ca, .*PrivateKeyEntry"
has text "^other ☺😀, .*trustedCertEntry"
keytool -list -storetype PKCS12 -keystore one.p12 -storepass "$P12" > text 2>&1
has text "Your keystore contains 1 entry"
openssl pkcs12 -in one.p12 -info -noout -passin env:P12 > text 2>&1
has text "MAC: sha256"

export TOLVIK_DB=copy.kdb
ok keydb create --password-env PW
run p12 import all.p12 --p12-password-env PW --password-env PW
has err "^tolvik: cannot import all.p12: 120 ZAVKM_ERR_PKCS12_PWD_CORRUPTION \(wrong password"
ok p12 import all.p12 --p12-password-env P12 --password-env PW
ok list --json --password-env PW
json "[(r['label'], r['kind']) for r in d['entries']] == [('ca', 'personal'), ('other ☺😀', 'signer')]"

ok keyring export ring.kyr --keyring-password-env P12 --password-env PW
keytool -list -storetype PKCS12 -keystore ring.kyr -storepass "$P12" > text 2>&1
has text "Your keystore contains 2 entries"
ok keyring import ring.kyr --db ring.kdb --keyring-password-env P12 --password-env PW
ok list --db ring.kdb --password-env PW
has out "^other ☺😀 +signer"

# PKCS#8: openssl decrypts what tolvik encrypted, and tolvik gives back the same key
ok epki encrypt --in other.key --out other.p8 --key-password-env P12
[ "$(stat -c %a other.p8)" = 600 ] || fail "the encrypted key is not private"
has other.p8 "BEGIN ENCRYPTED PRIVATE KEY"
pub=$(openssl pkey -in other.key -pubout)
[ "$(openssl pkey -in other.p8 -passin env:P12 -pubout)" = "$pub" ] || fail "openssl decrypts another key"
ok epki decrypt --in other.p8 --out back.der --der --key-password-env P12
[ "$(openssl pkey -inform DER -in back.der -pubout)" = "$pub" ] || fail "decrypt gave another key"
run epki decrypt --in other.p8 --out no.pem --key-password-env PW
has err "16 ZAVKM_ERR_DATABASE_INVALID_PASSWORD"
[ ! -e no.pem ] || fail "a failed decryption left a file"
finish
