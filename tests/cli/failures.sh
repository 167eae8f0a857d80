# Failures and their messages: one row a failure (exit code, what standard error says, the
# arguments), then the password prompt on a terminal, and the progress line of a large key.
. "$CLI_TESTS/lib.sh"
export BAD=Wrong-passw0rd EMPTY=
ok keydb create --password-env PW
ok cert selfsign ca --subject CN=ca,C=NO --password-env PW
echo "not a key database" > junk.kdb
head -c 12288 keys.kdb > cut.kdb
openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out k.pem 2> /dev/null
ok epki encrypt --in k.pem --out k.p8 --key-password-env PW
rows=(
  "1|open key database keys.kdb: 16 ZAVKM_ERR_DATABASE_INVALID_PASSWORD \(wrong password|list --password-env BAD"
  "1|open key database junk.kdb: 17 ZAVKM_ERR_DATABASE_INVALID_FILE_TYPE \(not a key database of ours|list --db junk.kdb --password-env PW"
  "1|open key database cut.kdb: 18 ZAVKM_ERR_DATABASE_CORRUPTION \(the file is damaged|list --db cut.kdb --password-env PW"
  "1|open key database none.kdb: 101 ZAVKM_ERR_KEYDB_NOT_EXIST \(no such key database|show ca --db none.kdb"
  "1|find entry nosuch: 117 ZAVKM_ERR_KEY_GET_BY_LABEL \(unknown label|show nosuch --password-env PW"
  "1|delete nosuch: 117 ZAVKM_ERR_KEY_GET_BY_LABEL|delete nosuch --password-env PW"
  "1|create key database keys.kdb: 9 ZAVKM_ERR_DATABASE_ALREADY_EXISTS|keydb create --password-env PW"
  "1|create key database new.kdb: 130 ZAVKM_ERR_PWD_TOO_SHORT|keydb create --db new.kdb --password-env EMPTY"
  "1|make the self-signed certificate ca: 23 ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL|cert selfsign ca --subject CN=x --password-env PW"
  "1|make the self-signed certificate x: 41 ZAVKM_ERR_CRYPTO_UNSUPPORTED_MODULUS_SIZE|cert selfsign x --subject CN=x -k 100 --password-env PW"
  "1|make the request r: 116 ZAVKM_ERR_INVALID_DN_INPUT|cert request r --subject C=NOR --out r.csr --password-env PW"
  "1|read none.pem: 87 ZAVKM_ERR_FILE_OPEN_TO_READ \(No such file|cert receive --in none.pem --password-env PW"
  "1|read /dev/zero: 65 ZAVKM_ERR_PARAMETER \(the file is larger than 16 MiB|cert add-ca z --in /dev/zero --password-env PW"
  "1|import none.p12: 89 ZAVKM_ERR_FILE_OPEN_NOT_EXIST|p12 import none.p12 --p12-password-env PW --password-env PW"
  "1|export to x.p12: 117 ZAVKM_ERR_KEY_GET_BY_LABEL|p12 export x.p12 nosuch --p12-password-env PW --password-env PW"
  "1|write none/k.pem: 91 ZAVKM_ERR_FILE_WRITE \(No such file|epki decrypt --in k.p8 --out none/k.pem --key-password-env PW"
  "1|list the tokens of /none.so: 140 ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LIBRARY_NOT_LOADED|token list /none.so"
  "1|open store nosuch: 137 ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LABEL_NOT_EXIST|store list nosuch"
  "1|read token t1: 140 ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LIBRARY_NOT_LOADED|token info -m /none.so -t t1"
  "2|no password: give --password-file or --password-env, or run on a terminal|list"
  "2|--password-env: NOPE is not set|list --password-env NOPE"
  "2|--subject: \"XX=1\" is none of CN=|cert selfsign x --subject XX=1 --password-env PW"
  "2|--san: cannot read \"FOO\"|cert request x --subject CN=x --san FOO --out x.csr --password-env PW"
  "2|--expire-days: Value 99999 not in range|keydb create --db x.kdb --expire-days 99999 --password-env PW"
  "2|A subcommand is required|cert"
  "2|A subcommand is required|"
  "0|changepw +change the password|--help-all"
  "2|state: maybe not in \{on,off\}|trust ca maybe"
)
for row in "${rows[@]}"; do
  IFS='|' read -r code message args <<< "$row"
  read -ra argv <<< "$args"
  run "${argv[@]}"
  [ "$rc" -eq "$code" ] || fail "tolvik $args exited $rc, not $code: $(cat err)"
  [ "$code" -ne 1 ] || has err "^tolvik: cannot $message"
  [ "$code" -ne 2 ] || has err "$message"
  [ "$code" -ne 0 ] || has out "$message"
  [ "$code" -ne 1 ] || [ "$(wc -l < err)" -eq 1 ] || fail "tolvik $args said more than one line"
done
[ ! -e new.kdb ] || fail "a failed create left a file"
run list --password "$PW"
has err "^tolvik: warning: a password in the arguments can be read by other users"

# on a terminal: the password asked twice without echo; progress while a large key is made
pty Tty-passw0rd Tty-passw0rd -- keydb create --db tty.kdb
[ "$rc" -eq 0 ] || fail "create on a terminal exited $rc: $(cat out)"
has out "New password for tty.kdb: "
grep -q "Tty-passw0rd" out && fail "the password was echoed"
pty -- cert selfsign big --subject CN=big -k 4096 --db tty.kdb --password Tty-passw0rd
has out "generating an RSA 4096-bit key"
pty -- cert selfsign small --subject CN=small --db tty.kdb --password Tty-passw0rd
grep -q "generating" out && fail "progress shown for a small key"
ok show big --db tty.kdb --password Tty-passw0rd --json
json "d['key'] == 'RSA 4096'"
pty Wrong -- list --db tty.kdb
has out "16 ZAVKM_ERR_DATABASE_INVALID_PASSWORD"
finish
