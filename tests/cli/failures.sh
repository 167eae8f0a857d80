# Failures and their messages, one row a failure (exit code, what standard error says, the
# arguments): files that do not open, usage errors with the allowed range or the closest command,
# inputs that must not hang; then the password prompt on a terminal, Ctrl-C at it, and the
# progress line of a large key.
. "$CLI_TESTS/lib.sh"
export BAD=Wrong-passw0rd EMPTY=
ok keydb create --password-env PW
ok cert selfsign ca --subject CN=ca,C=NO --password-env PW
echo "not a key database" > junk.kdb
head -c 12288 keys.kdb > cut.kdb
openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out k.pem 2> /dev/null
ok epki encrypt --in k.pem --out k.p8 --key-password-env PW
mkfifo fifo.p12 fifo.pw
long=$(printf 'x%.0s' $(seq 256))
play \
  "1|list --password-env BAD|open key database keys.kdb: 16 ZAVKM_ERR_DATABASE_INVALID_PASSWORD \(wrong password" \
  "1|list --db junk.kdb --password-env PW|open key database junk.kdb: 17 ZAVKM_ERR_DATABASE_INVALID_FILE_TYPE \(not a key database of ours" \
  "1|list --db cut.kdb --password-env PW|open key database cut.kdb: 18 ZAVKM_ERR_DATABASE_CORRUPTION \(the file is damaged" \
  "1|show ca --db none.kdb|open key database none.kdb: 101 ZAVKM_ERR_KEYDB_NOT_EXIST \(no such key database" \
  "1|keydb info --db none/x.kdb --password-env PW|open key database none/x.kdb: 101 ZAVKM_ERR_KEYDB_NOT_EXIST" \
  "1|show nosuch --password-env PW|find entry nosuch: 117 ZAVKM_ERR_KEY_GET_BY_LABEL \(unknown label" \
  "1|delete nosuch --password-env PW|delete nosuch: 117 ZAVKM_ERR_KEY_GET_BY_LABEL" \
  "1|keydb create --password-env PW|create key database keys.kdb: 9 ZAVKM_ERR_DATABASE_ALREADY_EXISTS" \
  "1|keydb create --db new.kdb --password-env EMPTY|create key database new.kdb: 130 ZAVKM_ERR_PWD_TOO_SHORT" \
  "1|cert selfsign ca --subject CN=x --password-env PW|make the self-signed certificate ca: 23 ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL" \
  "1|cert receive --in none.pem --password-env PW|read none.pem: 87 ZAVKM_ERR_FILE_OPEN_TO_READ \(No such file" \
  "1|cert add-ca z --in /dev/zero --password-env PW|read /dev/zero: 65 ZAVKM_ERR_PARAMETER \(the file is larger than 16 MiB" \
  "1|p12 import fifo.p12 --p12-password-env PW --password-env PW|read fifo.p12: 65 ZAVKM_ERR_PARAMETER \(the file is empty" \
  "1|p12 import none.p12 --p12-password-env PW --password-env PW|read none.p12: 87 ZAVKM_ERR_FILE_OPEN_TO_READ" \
  "1|list --password-file fifo.pw|read fifo.pw: 65 ZAVKM_ERR_PARAMETER \(the file is empty" \
  "1|p12 export x.p12 ca nosuch --p12-password-env PW --password-env PW|export to x.p12: 117 ZAVKM_ERR_KEY_GET_BY_LABEL \(no entry nosuch\)" \
  "1|epki decrypt --in k.p8 --out none/k.pem --key-password-env PW|write none/k.pem: [0-9]+ ZAVKM_ERR" \
  "1|token list /none.so|list the tokens of /none.so: 140 ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LIBRARY_NOT_LOADED" \
  "1|store list nosuch|open store nosuch: 137 ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LABEL_NOT_EXIST" \
  "1|token info -m /none.so -t t1|read token t1: 140 ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LIBRARY_NOT_LOADED" \
  "2|list|no password: give --password-file or --password-env, or run on a terminal" \
  "2|list --password-env NOPE|--password-env: NOPE is not set" \
  "2|cert selfsign x --subject XX=1 --password-env PW|--subject: \"XX=1\" is none of CN=" \
  "2|cert request r --subject C=NOR --out r.csr --password-env PW|--subject: C=NOR: a country is two letters" \
  "2|cert request x --subject CN=x --san FOO --out x.csr --password-env PW|--san: cannot read \"FOO\"" \
  "2|keydb create --db x.kdb --expire-days 99999 --password-env PW|--expire-days: Value 99999 not in range" \
  "2|cert selfsign x --subject CN=x --days 0 --password-env PW|--days: Value 0 not in range 1 to 9999" \
  "2|cert selfsign x --subject CN=x -k 100 --password-env PW|--key-size: RSA keys are 1024 to 16384 bits, not 100" \
  "2|cert request x --subject CN=x --key ec -k 512 --out x.csr --password-env PW|--key-size: EC keys are 256, 384 or 521 bits" \
  "2|cert selfsign x --subject CN=x --key ed25519 -k 256 --password-env PW|--key-size: ed25519 keys have one size" \
  "2|cert selfsign $long --subject CN=x --password-env PW|label: a label is 1 to 255 bytes" \
  "2|token info -m /none.so|name the token with -m MODULE and -t LABEL" \
  "2|lsit|unknown command \"lsit\"; did you mean \"list\"\?" \
  "2|cert slefsign|unknown command \"slefsign\"; did you mean \"selfsign\"\? \(see tolvik cert --help\)" \
  "2|list --expirng 3d|unknown option \"--expirng\"; did you mean \"--expiring\"\?" \
  "2|cert|A subcommand is required" \
  "2||A subcommand is required" \
  "2|trust ca maybe|state: maybe not in \{on,off\}" \
  "0|--version|^tolvik [0-9]+\.[0-9]+\.[0-9]+$" \
  "0|--help-all|changepw +change the password" \
  "0|cert selfsign --help|--password-env" \
  "0|p12 import --help|--p12-password-env" \
  "0|p12 import --help|-d,--db"
[ ! -e new.kdb ] || fail "a failed create left a file"
run list --password "$PW"
has err "^tolvik: warning: a password in the arguments can be read by other users"
ok show ca --json --password-env PW
run cert validate ca --json --db none.kdb
json "not doc['ok'] and doc['error']['code'] == 101 and doc['error']['name'] == 'ZAVKM_ERR_KEYDB_NOT_EXIST'"

# on a terminal: the password asked twice without echo; Ctrl-C at a prompt leaves the terminal
# as it was; progress while a large key is made
pty Tty-passw0rd Tty-passw0rd -- keydb create --db tty.kdb
[ "$rc" -eq 0 ] || fail "create on a terminal exited $rc: $(cat out)"
has out "New password for tty.kdb: "
grep -q "Tty-passw0rd" out && fail "the password was echoed"
pty ^C -- keydb create --db int.kdb
[ "$rc" -eq 130 ] || fail "Ctrl-C at the prompt exited $rc"
[ "$(cat echo)" = on ] || fail "echo is $(cat echo) after Ctrl-C at the prompt"
[ ! -e int.kdb ] || fail "an interrupted create left a file"
pty -- cert selfsign big --subject CN=big -k 4096 --db tty.kdb --password Tty-passw0rd
has out "generating an RSA 4096-bit key"
pty -- cert selfsign small --subject CN=small --db tty.kdb --password Tty-passw0rd
grep -q "generating" out && fail "progress shown for a small key"
ok show big --db tty.kdb --password Tty-passw0rd --json
json "d['key_type'] == 'RSA' and d['key_size'] == 4096"
pty Wrong -- list --db tty.kdb
has out "16 ZAVKM_ERR_DATABASE_INVALID_PASSWORD"
finish
