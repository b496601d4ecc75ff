#!/usr/bin/env bash
# What bash's line editor offers for datapathctl, and makes of a line, when Tab is pressed; the words
# are held against the tool's help: completion_test.sh DATAPATHCTL SCRIPT
set -euo pipefail
tool=$1
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
mkdir "$folder/a b"
touch "$folder/a file" "$folder/a b/c=d"

# shellcheck disable=SC2086 # an object and a verb
options() { "$tool" $1 --help | sed -n 's/^  \(-.,\)\?\(--[a-z-]*\).*/\2/p' | paste -sd ' '; }
commands() { # every object, or the verbs of one
  "$tool" help | sed -n "s/^Usage: datapathctl $1 *\([a-z-]*\) .*/\1/p" | uniq | paste -sd ' '
}
faults=$("$tool" misbehave help | sed -n 's/.*those before: //p' | sed 's/=[^,]*/=/g; s/,//g')

# Lines and, behind a '|', what is offered at their end.
cases() {
  echo "|$(commands "")"
  echo "--|$(options "")"
  for object in $(commands ""); do
    [ -n "$(commands "$object")" ] || echo "$object --|$(options "$object")"
    for verb in $(commands "$object"); do
      echo "$object $verb --|$(options "$object $verb")"
    done
    [ -z "$(commands "$object")" ] || echo "$object |$(commands "$object")"
  done
  cat <<END
--misbehave |$faults
misbehave silent |$faults
--misbehave=ref|refuse=
--misbehave=refuse=1:E|
--socket x enc|encap
proxy update --old tcp/1 u|udp/ udp6/
proxy up wlan0 |tcp/ udp/ tcp6/ udp6/
proxy up --from a|
ipsec add |
frob |
END
}

# Lines and what becomes of them.
edits="encap p|encap pass-through |
--dry|--dry-run |
--misbehave=ref|--misbehave=refuse=|
--socket=$folder/a\\ f|--socket=$folder/a\\ file |
--pcap \"$folder/a b/c=|--pcap \"$folder/a b/c=d\" |
--pcap=a --socket \"a b\" --log-file c\\ d enc|--pcap=a --socket \"a b\" --log-file c\\ d encap |"

# edit: lines of the input to <<what Tab makes of them>>, with what was offered added to "offers".
edit() {
  {
    echo "PS1=; source $2"
    echo "offer() { _datapathctl \"\$@\"; echo \"\${COMP_LINE#datapathctl }|\${COMPREPLY[*]}\" >>$folder/offers; }"
    echo "complete -F offer datapathctl"
    echo "show() { echo \"<<\$READLINE_LINE>>\"; READLINE_LINE=; }; bind -x '\"\C-x\": show'"
    while IFS= read -r line; do printf 'datapathctl %s\t\x18\n' "$line"; done
    echo exit
  } | TERM=dumb script -qec 'bash --norc --noprofile -i' /dev/null
}
cases >"$folder/cases"
cut -d'|' -f1 "$folder/cases" | edit "$@" >/dev/null
diff "$folder/cases" "$folder/offers"
cut -d'|' -f1 <<<"$edits" | edit "$@" | sed -n 's/^<<datapathctl \(.*\)>>\r$/\1|/p' |
  diff <(cut -d'|' -f2- <<<"$edits") -
