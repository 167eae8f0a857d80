# A CA: a key database made with a password file, a self-signed CA that openssl reads as one,
# shown as text, JSON and PEM, its trust switched, a stash file, a second CA added and deleted.
. "$CLI_TESTS/lib.sh"
printf '%s\n' "$PW" > pw.txt
ok keydb create --password-file pw.txt
ok cert selfsign ca --subject "CN=Test CA,O=Norvex,C=NO" --days 30 --out ca.pem --password-env PW
openssl x509 -in ca.pem -noout -text > text
has text "CA:TRUE"
has text "Subject: C = NO, O = Norvex, CN = Test CA"
ok show ca --json --password-env PW
sha=$(openssl x509 -in ca.pem -noout -fingerprint -sha256 | cut -d= -f2)
json "d['kind'] == 'personal' and d['trusted'] and d['subject'] == 'CN=Test CA, O=Norvex, C=NO'"
json "d['sha256'] == '$sha' and d['serial'] == d['serial'].upper() and d['chain'] == []"
json "{'name': 'basicConstraints', 'critical': True, 'value': 'CA:TRUE'} in d['extensions']"
ok show ca --password-env PW
has out "^not after +$(openssl x509 -in ca.pem -noout -enddate | cut -d= -f2 | xargs -I{} date -ud {} +%FT%TZ)$"
has out "^extensions +basicConstraints  critical  CA:TRUE$"
ok show ca --pem --password-env PW
cmp -s out ca.pem || fail "show --pem differs from the certificate written"

# trust decides validation; the stash file opens the database without a password
ok trust ca off --password-env PW
run cert validate ca --password-env PW
[ "$rc" -eq 1 ] || fail "validate of an untrusted root exited $rc"
has err "^tolvik: cannot validate the chain of ca: 147 ZAVKM_ERR_CERT_ROOT_NOT_TRUSTED \(the root"
ok trust ca on --password-env PW
ok cert validate --in ca.pem --json --password-env PW
json "d['valid']"
ok keydb stash --password-file pw.txt
[ "$(stat -c %a keys.sth keys.kdb | tr '\n' ' ')" = "600 600 " ] || fail "the key database or its stash is not private"
ok keydb info --json
json "d['stash'] and d['default'] is None and d['entries'] == {'personal': 1, 'request': 0, 'signer': 0, 'trusted': 1}"
json "d['password_expires'] is None"
ok default ca
ok keydb info
has out "^default +ca$"

# a new password: the stash file follows it, the old password no longer opens the file
export NEW=New-passw0rd
ok keydb changepw --new-password-env NEW --expire-days 30
has out "^stash rewritten +yes$"
ok keydb open-check
run keydb open-check --password-env PW
has err "16 ZAVKM_ERR_DATABASE_INVALID_PASSWORD"
ok keydb open-check --password-env NEW
ok keydb info --json
json "d['password_expires'] == '$(date -ud @$(( $(date +%s) + 30 * 86400 )) +%F)T' + d['password_expires'][11:]"

# a CA made elsewhere: a trusted signer certificate until deleted
openssl req -x509 -newkey rsa:2048 -nodes -keyout other.key -subj /CN=Other -days 2 \
  -addext 1.2.3.4=critical,DER:0C026869 -out other.pem 2> /dev/null
ok cert add-ca other --in other.pem
ok show other --json
json "{'name': '1.2.3.4', 'critical': True, 'value': '..hi'} in d['extensions']"
ok list --json
json "[(r['label'], r['kind'], r['trusted'], r['default']) for r in d['entries']] == [('ca', 'personal', True, True), ('other', 'signer', True, False)]"
ok delete other
ok list
[ "$(wc -l < out)" -eq 2 ] || fail "list after delete: $(cat out)"
has out "^label +kind +default +trusted +key +expires +days left$"
finish
