# Files made by one architecture's build open in the other's: key database, stash, PKCS#12 and
# keyring files both ways; a certificate valid past 2038 shows its exact expiry on both.
. "$CLI_TESTS/lib.sh"
O=${OTHER_TOLVIK:?}
other() { "$O" "$@" < /dev/null > out 2> err || fail "other build: tolvik $* exited $?: $(cat err)"; }

other keydb create --password-env PW
other cert selfsign ca --subject "CN=Cross CA" --key-size 256 --days 30 --password-env PW
other cert request srv --subject "CN=srv.cross.test" --key-size 2048 --out srv.csr --password-env PW
other keydb stash --password-env PW
other p12 export made-there.p12 --p12-password-env P12 --password-env PW
other keyring export made-there.kyr --keyring-password-env P12 --password-env PW
ok list --json
json "[(r['label'], r['kind']) for r in d['entries']] == [('ca', 'personal'), ('srv', 'request')]"
ok cert sign --issuer ca --in srv.csr --out srv.pem
ok cert receive --in srv.pem
ok keydb create --db here.kdb --password-env PW
ok p12 import made-there.p12 --db here.kdb --p12-password-env P12 --password-env PW
ok keyring import made-there.kyr --db ring.kdb --keyring-password-env P12 --password-env PW
ok list --db ring.kdb --json --password-env PW
json "[(r['label'], r['kind']) for r in d['entries']] == [('ca', 'personal'), ('srv', 'request')]"

ok keydb create --db back.kdb --password-env PW
ok cert selfsign late --db back.kdb --subject "CN=Late" --key-size 256 --days 9000 --password-env PW
ok p12 export made-here.p12 --db back.kdb --p12-password-env P12 --password-env PW
late=$(date -ud "+9000 days" +%F)
ok list --db back.kdb --password-env PW
has out "^late .* ${late}T"
other list --db back.kdb --password-env PW
has out "^late .* ${late}T"
ok show late --db back.kdb --json --password-env PW
json "d['not_after'].startswith('$late')"
other keydb create --db there.kdb --password-env PW
other p12 import made-here.p12 --db there.kdb --p12-password-env P12 --password-env PW
other list --db keys.kdb --json
json "[(r['label'], r['kind']) for r in d['entries']] == [('ca', 'personal'), ('srv', 'personal')]"
finish
