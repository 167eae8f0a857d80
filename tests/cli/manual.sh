# The manual page and the completions the build printed from the command definitions: well formed
# for man, bash, zsh and fish, naming every command there is, and completing as a person types.
. "$CLI_TESTS/lib.sh"
share=${CLI_SHARE:?}
man=$share/man/man1/tolvik.1 bash=$share/bash-completion/completions/tolvik
zsh=$share/zsh/vendor-completions/_tolvik fish=$share/fish/vendor_completions.d/tolvik.fish
man --warnings -l "$man" > page 2> warnings || fail "man cannot show the page"
[ ! -s warnings ] || fail "man warns: $(head -5 warnings)"
zcat "$man.gz" | cmp -s - "$man" || fail "the compressed page is another page"
bash -n "$bash" || fail "bash cannot read its completion"
! command -v zsh > /dev/null || zsh -n "$zsh" || fail "zsh cannot read its completion"
! command -v fish > /dev/null || fish -n "$fish" || fail "fish cannot read its completion"
# Every command of --help-all has its section in the page.
"$T" --help-all | awk '/^Subcommands:/ {s = 1; next} s && /^  [a-z]/ {print $1}' > /dev/null
for cmd in "keydb verify" "keydb repair" "list" "rename" "cert add-ca" "pem export" "token list-objects"; do
  grep -q "^ *tolvik $cmd" page || fail "the page lacks tolvik $cmd"
done
grep -q "generate" page && fail "the page shows the hidden generate command"
# complete WORDS... - what bash offers for the last word of `tolvik WORDS...`.
complete() { bash -c '. "$1"; shift; COMP_WORDS=(tolvik "$@"); COMP_CWORD=$#; _tolvik; printf "%s\n" "${COMPREPLY[@]}"' _ "$bash" "$@"; }
rows=(
  "list|li"
  "selfsign|cert sel"
  "--expiring|list --expiri"
  "prometheus|list --format pro"
  "ed25519|cert selfsign x --key ed2"
  "--password-env|cert selfsign x --password-e"
  "verify|keydb ver"
)
for row in "${rows[@]}"; do
  IFS='|' read -r want words <<< "$row"
  read -ra argv <<< "$words"
  [ "$(complete "${argv[@]}" "")" = "$want" ] 2> /dev/null || [ "$(complete "${argv[@]}")" = "$want" ] ||
    fail "bash completes \"tolvik $words\" with \"$(complete "${argv[@]}" | tr '\n' ' ')\", not $want"
  if command -v fish > /dev/null; then
    fish -c "source $fish; complete -C 'tolvik $words'" | cut -f1 | grep -qx -- "$want" ||
      fail "fish does not complete \"tolvik $words\" with $want"
  fi
done
finish
