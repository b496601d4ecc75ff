#!/usr/bin/env bash
# What bash's line editor offers for datapathctl, and makes of a line, when Tab is pressed:
# completion_test.sh DATAPATHCTL SCRIPT
set -euo pipefail
PATH=$(dirname "$1"):$PATH
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
mkdir "$folder/a b"
touch "$folder/a file" "$folder/a b/c=d"

# Lines and, behind a '|', what is offered at their end.
cat >"$folder/cases" <<'END'
|proxy ipsec encap lowlat ports reset state misbehave batch emulator monitor decode version help
encap |set unset pass-through drop
--log|--log-file --log-diag --log-android
proxy down wlan0 --|--help --from --to --selector --force
reset --|--help
--misbehave |none silent delay= truncate= garbage stale refuse= interrupt= family-id= absent
misbehave silent re|refuse=
--misbehave=ref|refuse=
--misbehave=refuse=1:E|
--socket x enc|encap
proxy update --old tcp/1 u|udp/ udp6/
proxy up wlan0 |tcp/ udp/ tcp6/ udp6/
proxy up --from a|
ipsec add |
frob |
END

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
cut -d'|' -f1 "$folder/cases" | edit "$@" >/dev/null
diff "$folder/cases" "$folder/offers"
cut -d'|' -f1 <<<"$edits" | edit "$@" | sed -n 's/^<<datapathctl \(.*\)>>\r$/\1|/p' |
  diff <(cut -d'|' -f2- <<<"$edits") -
