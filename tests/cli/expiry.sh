# Watching a key database over time, as tables of rows: expiry windows and the exit status a cron
# job tests, rows marked on a terminal, the Prometheus textfile output, damaged rows reported,
# named and removed, and the exact dates of token and platform-store certificates.
. "$CLI_TESTS/lib.sh"
ok keydb create --password-env PW
ok keydb stash --password-env PW
ok cert selfsign ca --subject CN=ca --days 3650
ca soon 10
ca old 1 20200101000000Z
for c in soon old; do ok cert add-ca "$c" --in "$c.pem" --force; done
ok cert request req --subject CN=req --out req.csr

# Expiry: --expiring (expired ones included) and --expired choose the rows; the exit status says
# what was found: 0 none, 3 expiring, 4 expired.
labels() { awk 'NR > 1 {print $1}' out | sort | tr '\n' ' '; }
check \
  "4|list --expiring 30d||[ \"\$(labels)\" = 'old soon ' ] && has out '^soon .* (9|10)$' && has out '^old .*2020-01-02T.* -[0-9]+$'" \
  "4|list --expired||[ \"\$(labels)\" = 'old ' ]" \
  "4|list --expiring 2w||[ \"\$(labels)\" = 'old soon ' ]" \
  "4|list --expiring 24h||[ \"\$(labels)\" = 'old ' ]" \
  "0|list||[ \"\$(labels)\" = 'ca old req soon ' ] && has out '^req +request .* - +-$'" \
  "2|list --expiring 30x||has err 'expiring: a duration from 1h'" \
  "2|list --expiring 0d||has err 'expiring: a duration from 1h'" \
  "4|list --expiring 30d --json||json \"[(r['label'], r['days_left'] < 0) for r in d['entries']] == [('soon', False), ('old', True)]\"" \
  "0|keydb info --json||json \"d['entries'] == {'personal': 1, 'signer': 2, 'request': 1, 'trusted': 3} and d['next_expiry']['label'] == 'old' and d['damaged'] == 0\""
ok delete old
check \
  "3|list --expiring 30d||[ \"\$(labels)\" = 'soon ' ]" \
  "0|list --expiring 5d||[ \"\$(labels)\" = '' ]" \
  "0|list --expired||[ \"\$(labels)\" = '' ]"
ca old 1 20200101000000Z && ok cert add-ca old --in old.pem --force

# On a terminal: expired and soon-expiring rows marked, in colour unless NO_COLOR says not.
pty -- list
grep -Eq $'\033\\[31mold .* expired\033\\[0m' out || fail "the expired row is not red: $(cat -v out)"
grep -Eq $'\033\\[33msoon .* soon\033\\[0m' out || fail "the soon row is not yellow: $(cat -v out)"
grep -Eq $'^ca .*[0-9]+\r?$' out || fail "a certificate far from expiry is marked: $(cat -v out)"
NO_COLOR=1 pty -- list
! grep -q $'\033' out || fail "colour despite NO_COLOR: $(cat -v out)"
has out "^old .* expired"

# Prometheus: the textfile format, every label value escaped, written whole with -o.
ok cert add-ca 'q"uote\back' --in soon.pem --force
prom() { python3 - "$@" <<'PY'
import re, sys
lines = open('out' if len(sys.argv) < 2 else sys.argv[1]).read().splitlines()
value = r'"((?:[^"\\\n]|\\[\\"n])*)"'
sample = re.compile(r'^(\w+)\{((?:\w+=' + value + r',?)*)\} (-?\d+)$')
seen, types = {}, set()
for l in lines:
    if l.startswith('# TYPE '):
        types.add(l.split()[2]); continue
    if l.startswith('# HELP '):
        continue
    m = sample.match(l)
    if not m or m.group(1) not in types:
        sys.exit('not the textfile format: ' + l)
    labels = dict((k, re.sub(r'\\(.)', lambda e: {'n': '\n'}.get(e.group(1), e.group(1)), v))
                  for k, v in re.findall(r'(\w+)=' + value, m.group(2)))
    seen[(m.group(1), labels.get('label'))] = (labels, int(m.group(4)))
soon = seen[('tolvik_certificate_not_after_seconds', 'soon')]
quote = seen[('tolvik_certificate_not_after_seconds', 'q"uote\\back')]
ok = (soon[0]['subject'] == 'CN=soon' and soon[0]['issuer'] == 'CN=Openssl CA' and soon[0]['store'] == 'keys.kdb'
      and soon[0]['key_type'] == 'EC' and len(soon[0]['serial']) > 0 and quote[1] == soon[1]
      and ('tolvik_certificate_not_after_seconds', 'req') not in seen
      and seen[('tolvik_keydb_damaged_rows', None)][1] == 0)
sys.exit(not ok)
PY
}
end=$(date -ud "$(openssl x509 -in soon.pem -noout -enddate | cut -d= -f2)" +%s)
check \
  "0|list --format prometheus||prom && grep -q \"label=\\\"soon\\\".* $end\$\" out" \
  "0|list --format prometheus -o t.prom --force|echo old > t.prom|prom t.prom && [ ! -s out ] && [ \"\$(ls t.prom*)\" = t.prom ]" \
  "1|list --format prometheus -o t2.prom|echo old > t2.prom|grep -qx old t2.prom" \
  "2|list --format prometheus --json||has err 'ask for two formats'"

# Damaged rows: a row changed behind the library is left out, counted on standard error with
# exit status 1, named by keydb verify and removed by keydb repair once confirmed.
gen() { ok keydb info --json && python3 -c "import json; print(json.load(open('out'))['result']['generation'])"; }
before=$(gen) && ok trust soon on && [ "$(gen)" -eq $((before + 1)) ] || fail "the generation does not count a change"
sqlite3 keys.kdb "UPDATE keys SET label = 'forged' WHERE label = 'soon'"
check \
  "1|list||has err '^tolvik: cannot list every entry: 20 .*1 damaged row left out' && has out '^ca ' && ! grep -q forged out" \
  "1|list --json||json \"d['damaged'] == 1 and not doc['ok'] and doc['error']['code'] == 20\"" \
  "1|keydb verify --json||json \"not d['sound'] and ('forged', 'signer', 'mac') in [(r['label'], r['kind'], r['reason']) for r in d['damaged']]\"" \
  "2|keydb repair||has err 'confirm on a terminal or give --yes'" \
  "0|keydb repair --yes --json||json \"d['removed'] >= 1 and {'action': 'delete', 'label': 'forged', 'kind': 'signer'} in d['changes']\"" \
  "0|keydb verify --json||json \"d['sound']\"" \
  "0|list||has out '^ca '"

# Tokens and the platform store: exact dates past 2038; a PIN asked for, and a wrong one named.
export SOFTHSM2_CONF=$PWD/softhsm2.conf PIN=1234 BADPIN=9999
# In the sanitizer build, SoftHSM2's own leak on EdDSA signing is suppressed; the slow unwinder
# lets the suppression see the module's frames under OpenSSL's.
export LSAN_OPTIONS=suppressions=$CLI_TESTS/../lsan.supp:fast_unwind_on_malloc=0:print_suppressions=0
mkdir tokens && echo "directories.tokendir = $PWD/tokens" > softhsm2.conf
softhsm2-util --init-token --free --label t --pin "$PIN" --so-pin 5678 > /dev/null
module=${SOFTHSM_MODULE:-/usr/lib/softhsm/libsofthsm2.so}
ok token selfsign far --subject CN=far --days 9999 -m $module -t t --pin-env PIN
year=$(date -ud "+9999 days" +%Y)
check \
  "0|token list-objects -m $module -t t --pin-env PIN --json||json \"[(r['label'], r['not_after'][:4]) for r in d['entries']] == [('far', '$year')]\"" \
  "2|token list-objects -m $module -t t||has err 'the store t needs a PIN: give --pin-file or --pin-env'" \
  "1|token list-objects -m $module -t t --pin-env BADPIN||has err '16 ZAVKM_ERR_DATABASE_INVALID_PASSWORD \\(wrong PIN\\)'" \
  "0|token list-objects -m $module -t t --pin-env PIN --json|ok token selfsign ed -m $module -t t --pin-env PIN --key ed25519 --subject CN=ed|json \"'Ed25519' in [r['key'] for r in d['entries']]\""
# PKCS#12 files onto the token, then one entry at a time: show, default, trust, receive, delete
# (the default key deleted, the token has none).
# The keys arrive as signing keys that never leave the token; an Ed25519 key as well.
export P12WRONG=Not-the-passw0rd
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout alice.key \
  -subj /CN=alice -days 30 -out alice.pem 2> /dev/null
openssl req -x509 -newkey ed25519 -nodes -keyout eve.key -subj /CN=eve -days 30 -out eve.pem 2> /dev/null
ca bob 30
openssl pkcs12 -export -in alice.pem -inkey alice.key -certfile ca.crt -name alice -passout env:P12 -out alice.p12
openssl pkcs12 -export -in eve.pem -inkey eve.key -name eve -passout env:P12 -out eve.p12
openssl req -new -key bob.key -subj /CN=bob -out bob.req 2> /dev/null
tok="-m $module -t t --pin-env PIN"
play \
  "1|token p12 import alice.p12 $tok --p12-password-env P12WRONG|120 ZAVKM_ERR_PKCS12_PWD_CORRUPTION" \
  "1|token p12 import alice.p12 -m $module -t t --pin-env BADPIN --p12-password-env P12|16 ZAVKM_ERR_DATABASE_INVALID_PASSWORD" \
  "0|token p12 import alice.p12 $tok --p12-password-env P12|added alice \\(personal\\)" \
  "1|token p12 import alice.p12 $tok --p12-password-env P12|ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL" \
  "0|token p12 import eve.p12 $tok --p12-password-env P12|added eve \\(personal\\)" \
  "1|token show nobody $tok|117 ZAVKM_ERR_KEY_GET_BY_LABEL" \
  "1|token show alice -m $module -t t --pin-env BADPIN|16 ZAVKM_ERR_DATABASE_INVALID_PASSWORD" \
  "1|token default nobody $tok|117 ZAVKM_ERR_KEY_GET_BY_LABEL" \
  "1|token trust nobody on $tok|117 ZAVKM_ERR_KEY_GET_BY_LABEL" \
  "1|token receive -i bob.pem $tok|ZAVKM_ERR_KEY_GET_BY_LABEL" \
  "1|token delete nobody $tok|117 ZAVKM_ERR_KEY_GET_BY_LABEL" \
  "1|token delete alice -m $module -t t --pin-env BADPIN|16 ZAVKM_ERR_DATABASE_INVALID_PASSWORD"
entries() { echo "json \"sorted((r['label'], r['kind'], r['default'], r['trusted']) for r in d['entries']) == sorted($1)\""; }
# pkcs11-tool is the host's program: it loads the host's module, which reads the same tokens.
keys=$(pkcs11-tool --module /usr/lib/softhsm/libsofthsm2.so --token-label t --login --pin "$PIN" --list-objects 2> /dev/null)
for k in alice eve; do
  grep -A4 "^Private Key Object.*" <<< "$keys" | grep -A3 "label: *$k\$" | grep -q "Usage: *sign\$" \
    || fail "the private key $k on the token is not for signing only"
  grep -A4 "^Private Key Object.*" <<< "$keys" | grep -A3 "label: *$k\$" | grep -Eq "Access: *sensitive\$" \
    || fail "the private key $k on the token is not sensitive, or extractable"
done
check \
  "0|token show alice $tok --json||json \"d['kind'] == 'personal' and d['subject'] == 'CN=alice' and not d['default']\"" \
  "0|token show eve $tok --json||json \"d['key_type'] == 'Ed25519' and d['kind'] == 'personal'\"" \
  "0|token list-objects $tok --json||$(entries "[('far', 'personal', False, False), ('ed', 'personal', False, False), ('alice', 'personal', False, False), ('eve', 'personal', False, False), ('Openssl CA', 'signer', False, False)]")" \
  "0|token list-objects $tok --json|ok token default alice $tok && ok token trust 'Openssl CA' on $tok|$(entries "[('far', 'personal', False, False), ('ed', 'personal', False, False), ('alice', 'personal', True, False), ('eve', 'personal', False, False), ('Openssl CA', 'signer', False, True)]")" \
  "0|token show alice $tok --json|ok token default eve $tok|json \"not d['default']\"" \
  "0|token list-objects $tok --json|ok token request bob -s CN=bob -o bob2.csr $tok && openssl x509 -req -in bob2.csr -CA ca.crt -CAkey ca.key -days 9 -out bob2.pem 2> /dev/null && ok token receive -i bob2.pem --default $tok|json \"[r['label'] for r in d['entries'] if r['default']] == ['bob']\"" \
  "0|token delete bob $tok --json||json \"{'action': 'delete', 'label': 'bob'} in [{k: r[k] for k in ('action', 'label')} for r in d['changes']]\"" \
  "0|token list-objects $tok --json|ok cert selfsign kept --subject CN=kept --default && ok trust kept on && ok p12 export kept.p12 kept --p12-password-env P12 && ok token p12 import kept.p12 $tok --p12-password-env P12|json \"[(r['default'], r['trusted']) for r in d['entries'] if r['label'] == 'kept'] == [(True, True)]\"" \
  "0|token list-objects $tok --json|ok token trust 'Openssl CA' off $tok && ok token delete kept $tok|$(entries "[('far', 'personal', False, False), ('ed', 'personal', False, False), ('alice', 'personal', False, False), ('eve', 'personal', False, False), ('Openssl CA', 'signer', False, False)]")"
# The system trust store, unless this run cannot list its directories (ZAV_NO_SYSTEM_STORE: an
# i386 build under user-mode emulation).
[ -n "${ZAV_NO_SYSTEM_STORE:-}" ] || check \
  "0|store list p11-kit-trust --json||json \"any(r['not_after'] and r['not_after'] > '2039' for r in d['entries'])\""
finish
