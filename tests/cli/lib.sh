# lib.sh - what the scenarios share: a fresh directory, tolvik run as a person runs it, checks
# that count failures, and an answer to a prompt through a pseudo-terminal.
set -u
T=${TOLVIK:?}
case $PWD in */tests/cli/work/*) rm -rf ./* ;; *) echo "run me in my work directory"; exit 1 ;; esac
fails=0
export PW=Keydb-passw0rd P12=Export-passw0rd TOLVIK_DB=keys.kdb

fail() { echo "FAIL: $*"; fails=$((fails + 1)); }
# run ARGS - tolvik with stdin not a terminal; stdout in `out`, stderr in `err`, exit code in rc.
run() { "$T" "$@" < /dev/null > out 2> err; rc=$?; }
ok() { run "$@"; [ "$rc" -eq 0 ] || fail "tolvik $* exited $rc: $(cat err)"; }
# has FILE TEXT - FILE holds TEXT (an extended regular expression).
has() { grep -Eq -- "$2" "$1" || fail "$1 lacks \"$2\": $(head -c 400 "$1")"; }
# json EXPR - the Python expression holds for d, the JSON document in `out`.
json() { python3 -c "import json,sys; d=json.load(open('out')); sys.exit(not ($1))" || fail "not $1: $(head -c 400 out)"; }
# pty ANSWER... -- ARGS - tolvik on a pseudo-terminal, each prompt (output ending in ": ")
# answered in turn; what the terminal showed lands in `out`.
pty() {
  python3 - "$T" "$@" > out <<'PY'
import os, pty, sys
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
    if answers and len(seen) > answered and seen.endswith(b': '):
        os.write(fd, answers.pop(0).encode() + b'\n')
        answered = len(seen)
sys.stdout.write(seen.decode(errors='replace'))
sys.exit(os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]))
PY
  rc=$?
}
finish() { [ "$fails" -eq 0 ] && echo "every check passed"; exit $((fails > 0)); }
