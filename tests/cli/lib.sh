# lib.sh - what the scenarios share: a fresh directory, tolvik run as a person runs it, checks
# that count failures, tables of rows, and an answer to a prompt through a pseudo-terminal.
set -u
T=${TOLVIK:?}
case $PWD in */tests/cli/work/*) rm -rf ./* ;; *) echo "run me in my work directory"; exit 1 ;; esac
fails=0
export PW=Keydb-passw0rd P12=Export-passw0rd TOLVIK_DB=keys.kdb

fail() { echo "FAIL: $*"; fails=$((fails + 1)); }
# run ARGS - tolvik with stdin not a terminal; stdout in `out`, stderr in `err`, exit code in rc.
run() { timeout -k 5 60 "$T" "$@" < /dev/null > out 2> err; rc=$?; }
ok() { run "$@"; [ "$rc" -eq 0 ] || fail "tolvik $* exited $rc: $(cat err)"; }
# has FILE TEXT - FILE holds TEXT (an extended regular expression).
has() { grep -Eq -- "$2" "$1" || fail "$1 lacks \"$2\": $(head -c 400 "$1")"; }
# json EXPR - `out` is a JSON document the schema accepts and the Python expression holds for d,
# its result (doc: the whole document).
json() { python3 "$CLI_TESTS/check.py" out "$1" || fail "$(head -c 600 out)"; }
# play ROW... - each row "CODE|ARGS|MESSAGE" (ARGS split at blanks): tolvik ARGS exits CODE; a
# failure (1, 2) says MESSAGE on one line of standard error, "tolvik: " first; success (0, 3, 4)
# shows it on standard output.
play() {
  local row code message args argv
  for row in "$@"; do
    IFS='|' read -r code args message <<< "$row"
    read -ra argv <<< "$args"
    run "${argv[@]}"
    [ "$rc" -eq "$code" ] || { fail "tolvik $args exited $rc, not $code: $(cat err)"; continue; }
    if [ "$code" -eq 1 ] || [ "$code" -eq 2 ]; then
      has err "^tolvik: .*$message"
      [ "$(wc -l < err)" -eq 1 ] || fail "tolvik $args said more than one line: $(cat err)"
    else
      has out "$message"
    fi
  done
}
# check ROW... - each row "CODE|ARGS|SETUP|CHECK" (SETUP holds no "|"): after the shell command
# SETUP, tolvik ARGS exits CODE and the shell command CHECK holds.
check() {
  local row code setup test args argv
  for row in "$@"; do
    IFS='|' read -r code args setup test <<< "$row"
    eval "$setup"
    read -ra argv <<< "$args"
    run "${argv[@]}"
    [ "$rc" -eq "$code" ] || { fail "tolvik $args exited $rc, not $code: $(cat err)"; continue; }
    eval "$test" || fail "tolvik $args: not $test: $(head -c 300 out) $(head -c 300 err)"
  done
}
# pty ANSWER... -- ARGS - tolvik on a pseudo-terminal, each prompt (output ending in ": " or
# "] ") answered in turn (an answer ^C sends Ctrl-C); what the terminal showed lands in `out`,
# and whether echo was on once tolvik ended in `echo`.
pty() {
  python3 - "$T" "$@" > out <<'PY'
import os, pty, sys, termios
args = sys.argv[1:]
cut = args.index('--')
answers, cmd = args[1:cut], [args[0]] + args[cut + 1:]
pid, fd = pty.fork()
if pid == 0:
    os.execv(cmd[0], cmd)
seen, answered = b'', 0
while True:
    try:
        chunk = os.read(fd, 1024)
    except OSError:
        break
    if not chunk:
        break
    seen += chunk
    if answers and len(seen) > answered and (seen.endswith(b': ') or seen.endswith(b'] ')):
        answer = answers.pop(0)
        os.write(fd, b'\x03' if answer == '^C' else answer.encode() + b'\n')
        answered = len(seen)
status = os.waitpid(pid, 0)[1]
try:
    open('echo', 'w').write('on' if termios.tcgetattr(fd)[3] & termios.ECHO else 'off')
except termios.error:
    open('echo', 'w').write('gone')
sys.stdout.write(seen.decode(errors='replace'))
sys.exit(os.waitstatus_to_exitcode(status))
PY
  rc=$?
}
# ca NAME DAYS [START] - a certificate issued by the CA ca.key/ca.crt (made on first use) valid
# for DAYS days from START (YYYYMMDDHHMMSSZ, default now): NAME.pem and NAME.key.
ca() {
  if [ ! -e ca.crt ]; then
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout ca.key \
      -subj "/CN=Openssl CA" -days 3650 -out ca.crt 2> /dev/null
    mkdir -p ca.d && : > ca.d/index && echo 1000 > ca.d/serial
    printf '%s\n' '[ca]' 'default_ca=d' '[d]' 'dir=ca.d' 'database=ca.d/index' 'new_certs_dir=ca.d' \
      'serial=ca.d/serial' 'default_md=sha256' 'policy=p' 'unique_subject=no' 'copy_extensions=copy' \
      '[p]' 'commonName=supplied' > ca.cnf
  fi
  openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout "$1.key" -subj "/CN=$1" \
    -out "$1.csr" 2> /dev/null
  local start=${3:-$(date -u +%Y%m%d%H%M%SZ)} from end
  from=$(date -ud "$(echo "$start" | sed -E 's/(....)(..)(..)(..)(..)(..)Z/\1-\2-\3 \4:\5:\6 UTC/')" +%s)
  end=$(date -ud "@$((from + $2 * 86400))" +%Y%m%d%H%M%SZ)
  openssl ca -batch -config ca.cnf -cert ca.crt -keyfile ca.key -in "$1.csr" -startdate "$start" \
    -enddate "$end" -notext -out "$1.pem" 2> /dev/null || fail "openssl ca $1"
}
finish() { [ "$fails" -eq 0 ] && echo "every check passed"; exit $((fails > 0)); }
