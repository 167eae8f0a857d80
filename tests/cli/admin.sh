# An administrator's day, as tables of rows: outputs that write through what stands at their
# path, CA bundles, what round trips carry, labels on a terminal, and the verbs people reach for
# (rename, PEM files for servers, signing with usages, validating with intermediates, EdDSA keys,
# names with commas and e-mail addresses). Each row: exit code, set-up, what must hold, arguments.
. "$CLI_TESTS/lib.sh"
ok keydb create --password-env PW
ok keydb stash --password-env PW
ok cert selfsign ca --subject "CN=Test CA,O=Foo\, Inc.,C=NO" --out ca.pem
has out "^added ca \(personal, trusted, not default\)$"
[ "$(openssl x509 -in ca.pem -noout -subject -nameopt RFC2253)" = 'subject=CN=Test CA,O=Foo\, Inc.,C=NO' ] ||
  fail "the subject of ca.pem: $(openssl x509 -in ca.pem -noout -subject -nameopt RFC2253)"
# Two chains made by openssl, root -> inter (a CA) -> leaf: a and b.
echo "basicConstraints=critical,CA:TRUE" > ca.ext
key() { openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout "$1.key" -subj "/CN=$1" "${@:2}" 2> /dev/null; }
for c in a b; do
  key $c-root -x509 -days 30 -out $c-root.pem
  key $c-inter -out $c-inter.csr
  openssl x509 -req -in $c-inter.csr -CA $c-root.pem -CAkey $c-root.key -days 20 -extfile ca.ext -out $c-inter.pem 2> /dev/null
  key $c-leaf -out $c-leaf.csr
  openssl x509 -req -in $c-leaf.csr -CA $c-inter.pem -CAkey $c-inter.key -days 10 -out $c-leaf.pem 2> /dev/null
done
cat a-root.pem a-inter.pem > bundle.pem
cat b-leaf.pem b-inter.pem > b-chain.pem
openssl crl2pkcs7 -nocrl -certfile bundle.pem -outform DER -out bundle.p7b

# Outputs: - is standard output; a regular file is replaced only with --force, keeping its mode;
# a link is written through, a FIFO fed, /dev/stdout stays a link; the open database is refused.
echo old > old.pem && chmod 640 old.pem && ln -s old.pem link.pem
check \
  "0|cert extract ca -o -||cmp -s out ca.pem" \
  "1|cert extract ca -o old.pem||grep -qx old old.pem && has err 'cannot write old.pem: 9 .*--force replaces it'" \
  "1|cert extract ca -o link.pem||grep -qx old old.pem" \
  "0|cert extract ca -o link.pem --force||[ -L link.pem ] && cmp -s old.pem ca.pem && [ \$(stat -c %a old.pem) = 640 ]" \
  "0|cert extract ca -o pipe|mkfifo pipe; (timeout 20 cat pipe > piped 2> /dev/null &)|sleep 0.3; [ -p pipe ] && cmp -s piped ca.pem" \
  "1|cert extract ca -o lonely|mkfifo lonely|[ -p lonely ]" \
  "0|cert extract ca -o /dev/stdout||[ -L /dev/stdout ] && cmp -s out ca.pem" \
  "1|cert extract ca -o keys.kdb --force||ok show ca" \
  "0|p12 export - ca --p12-password-env P12||openssl pkcs12 -in out -passin env:P12 -noout" \
  "1|p12 export old.p12 --p12-password-env P12|echo x > old.p12|grep -qx x old.p12" \
  "1|cert request new --subject CN=new --out none/new.csr||[ ! -e new.csr ] && { run show new; [ \$rc -eq 1 ]; }"

# CA certificates: every certificate of a PEM or PKCS#7 bundle, the first the trust anchor (a CA
# unless --force), the others signers that are not trusted, each label said.
entries() { ok list --json && json "sorted((r['label'], r['trusted']) for r in d['entries'] if r['kind'] == 'signer') == $1"; }
check \
  "0|cert add-ca root --in bundle.pem||has out '^added root \\(signer, trusted\\)$' && has out '^added a-inter \\(signer, not trusted\\)$' && entries \"[('a-inter', False), ('root', True)]\"" \
  "1|cert add-ca leaf --in a-leaf.pem||has err 'not a CA certificate' && entries \"[('a-inter', False), ('root', True)]\"" \
  "0|cert add-ca again --in bundle.p7b||has err 'held already as a-inter' && entries \"[('a-inter', False), ('again', True), ('root', True)]\"" \
  "0|cert add-ca leaf --in a-leaf.pem --force||entries \"[('a-inter', False), ('again', True), ('leaf', True), ('root', True)]\""
ok delete leaf

# Validation: the intermediates of the input file complete the chain; JSON says why not.
ok cert add-ca broot --in b-root.pem
check \
  "1|cert validate --in b-leaf.pem --json||json \"not doc['ok'] and d == {'certificate': 'b-leaf.pem', 'valid': False, 'code': 50, 'reason': d['reason']}\"" \
  "0|cert validate --in b-chain.pem --json||json \"d['valid'] and d['code'] is None\"" \
  "0|cert validate --in a-leaf.pem --json||json \"d['valid']\""

# Signing: key usages, extended key usages and CA certificates with a path length, as openssl reads them.
ok cert request web --subject CN=web.test --san DNS:web.test,IP:10.0.0.2 --out web.csr
ok cert request web2 --subject CN=web2 --out web2.csr
ok cert sign --issuer ca --in web2.csr --out web2.pem
ok cert receive --in web2.pem
ext() { openssl x509 -in "$1" -noout -text | tr -s ' ' | grep -q -- "$2"; }
check \
  "0|cert sign --issuer ca --in web.csr --out web.pem||ext web.pem 'CA:FALSE' && ext web.pem 'DNS:web.test, IP Address:10.0.0.2'" \
  "0|cert sign --issuer ca --in a-leaf.csr --out sub.pem --key-usage critical,digitalSignature,keyEncipherment --ext-key-usage serverAuth --path-len 0||ext sub.pem 'Digital Signature, Key Encipherment' && ext sub.pem 'TLS Web Server Authentication' && ext sub.pem 'CA:TRUE, pathlen:0'" \
  "2|cert sign --issuer ca --in a-leaf.csr --out sub.pem --key-usage nonsense||has err 'key-usage: cannot read \"nonsense\"'" \
  "1|cert sign --issuer web2 --in a-leaf.csr --out x.pem||has err 'cannot sign a-leaf.csr with web2: 52 .*web2 is not a CA certificate'"
ok cert receive --in web.pem --default

# PEM files for servers: the key encrypted unless --no-encrypt, chains without the root unless
# asked, one file with everything for HAProxy; openssl reads each.
pub() { openssl x509 -in web.pem -noout -pubkey; }
check \
  "0|pem export web --key web.key --cert web.crt --key-password-env P12||has web.key 'BEGIN ENCRYPTED PRIVATE KEY' && [ \"\$(openssl pkey -in web.key -passin env:P12 -pubout)\" = \"\$(pub)\" ] && [ \$(stat -c %a web.key) = 600 ] && cmp -s web.crt web.pem" \
  "0|pem export web --fullchain full.pem --chain chain-only.pem||openssl verify -CAfile ca.pem full.pem > /dev/null && [ \$(grep -c BEGIN full.pem) = 1 ] && [ ! -s chain-only.pem ]" \
  "0|pem export web --fullchain full-root.pem --chain root-only.pem --with-root||[ \$(grep -c BEGIN full-root.pem) = 2 ] && cmp -s root-only.pem ca.pem" \
  "0|pem export web --bundle bundle.all --no-encrypt||has bundle.all 'BEGIN PRIVATE KEY' && [ \"\$(openssl pkey -in bundle.all -pubout)\" = \"\$(pub)\" ] && [ \$(stat -c %a bundle.all) = 600 ]" \
  "2|pem export web||has err 'say what to write'" \
  "1|pem export root --key root.out --no-encrypt||has err '109 ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL' && [ ! -e root.out ]"

# Round trips: a PKCS#12 export names the requests it cannot carry; the keyring carries every
# entry and flag.
ok cert request waiting --subject CN=waiting --out waiting.csr
ok trust web on
ok list --json && cp out before.json
same() { python3 -c "
import json, sys
a, b = (sorted((r['label'], r['kind'], r['default'], r['trusted'], r['sha256']) for r in json.load(open(f))['result']['entries']) for f in sys.argv[1:])
sys.exit(a != b)" "$@"; }
check \
  "0|p12 export all.p12 --p12-password-env P12 --json||has err 'warning: request key waiting left out of all.p12' && json \"d['left_out'] == ['waiting'] and doc['ok']\"" \
  "1|p12 export one.p12 web waiting --p12-password-env P12||has err 'waiting is a request key'" \
  "1|p12 import web.p12 --p12-password-env P12|ok p12 export web.p12 web --p12-password-env P12|has err 'import web.p12: 23 .*the label web is taken'" \
  "0|keyring import ring.kyr --db back.kdb --keyring-password-env P12 --password-env PW --json|ok keyring export ring.kyr --keyring-password-env P12|json \"doc['ok'] and len(d['changes']) == 8\"" \
  "0|list --db back.kdb --password-env PW --json||same before.json out"

# Labels reach a terminal escaped and aligned by display width, whatever a PKCS#12 file carried.
openssl pkcs12 -export -in a-leaf.pem -inkey a-leaf.key -name "$(printf 'evil\033[2J\nrow')" -passout env:P12 -out evil.p12
aligned() { python3 -c "
import sys, unicodedata
w = lambda s: sum(2 if unicodedata.east_asian_width(c) in 'WF' else 1 for c in s)
cols = {w(l[:l.index(k)]) for l in open('out') for k in ('kind', 'signer', 'personal', 'request') if ' ' + k + ' ' in l}
sys.exit(len(cols) != 1)"; }
ok cert add-ca 日本語 --in a-root.pem
run p12 import evil.p12 --p12-password-env P12  # the library may refuse the label (65)
[ "$rc" -eq 0 ] || has err "65 ZAVKM_ERR_PARAMETER"
run cert add-ca $'\xffbad' --in b-root.pem  # text that is not UTF-8: refused (65) or kept
[ "$rc" -eq 0 ] || has err "65 ZAVKM_ERR_PARAMETER"
check \
  "0|list --json||json \"all(r['label'] == '\\\\ufffdbad' for r in d['entries'] if r['label'].endswith('bad'))\"" \
  "0|list||! grep -q \$'\\033' out && aligned && { ! grep -q evil out || has out 'evil\\\\x1b\\[2J\\\\nrow'; }" \
  "0|show 日本語 --json||json \"d['label'] == '日本語'\""

# Everyday verbs: rename, EdDSA keys, names with further parts.
check \
  "0|rename web2 www --db keys.kdb||ok show www && { run show web2; [ \$rc -eq 1 ]; }" \
  "1|rename ca web||has err '23 ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL'" \
  "0|cert selfsign ed --key ed25519 --subject CN=ed --out ed.pem||openssl x509 -in ed.pem -noout -text | grep -q ED25519" \
  "0|cert request ed448 --key ed448 --subject CN=ed448 --out ed448.csr||openssl req -in ed448.csr -noout -text | grep -q ED448" \
  "0|cert selfsign mail --subject CN=mail,O=Foo\\,Inc.,emailAddress=a@example.test,DC=example --out mail.pem||openssl x509 -in mail.pem -noout -subject -nameopt RFC2253 > text && has text '^subject=DC=example,emailAddress=a@example.test,CN=mail,O=Foo\\\\,Inc\\.\$'"

# Many processes on one database at once, each one's last connection removing the log the next
# one checked: none is refused.
seq 1 120 | xargs -P8 -I{} sh -c '"$TOLVIK" list > /dev/null 2>> race.err; "$TOLVIK" trust ca on > /dev/null 2>> race.err'
[ ! -s race.err ] || fail "concurrent runs refused: $(sort -u race.err | head -3)"
finish
