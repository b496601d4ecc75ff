#!/usr/bin/env bash
# What bash and zsh offer for datapathctl: completion_test.sh DATAPATHCTL FOLDER_OF_SCRIPTS
set -euo pipefail
tool=$1
scripts=$2
status=0

# expect LINE OFFERS ACTUAL
expect() {
  [ "$2" = "$3" ] || { echo "'$1' is completed to '$3' instead of '$2'" >&2 && status=1; }
}

# bash, through the function that the script registers. Within it alone compopt would work.
# shellcheck disable=SC2317
compopt() { flags+=" $2"; }
# shellcheck source=/dev/null
source "$scripts/datapathctl.bash"
read -r _ _ function _ <<<"$(complete -p datapathctl)"

# offer LINE: sets COMPREPLY, and flags to the options of compopt.
offer() {
  COMP_LINE="datapathctl $1" flags=""
  COMP_POINT=${#COMP_LINE}
  "$function" "$tool" "${1##*[ =]}"
}

# Each word of each command is offered where it stands, and nothing that no command has.
forms=$("$tool" help | sed -n '/^Commands:/,/^$/s/^  \([a-z]\)/\1/p')
offer ""
expect "" "$(cut -d' ' -f1 <<<"$forms" | uniq | xargs)" "${COMPREPLY[*]}"
while read -ra form; do
  line=""
  for word in "${form[@]}"; do
    word=${word#[}
    [[ $word == [a-z-]* ]] || continue
    offer "$line$word"
    [[ " ${COMPREPLY[*]} " == *" $word "* ]] || expect "$line$word" "$word" "${COMPREPLY[*]}"
    [[ $word == --* ]] || line+="$word "
  done
done <<<"$forms"

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
mkdir "$folder/x=y" "$folder/a b"
touch "$folder/a file" "$folder/x=y/file" "$folder/a b/c=d"
while IFS='|' read -r line offers expected_flags; do
  offer "$line"
  expect "$line" "$offers/$expected_flags" "${COMPREPLY[*]}/${flags# }"
done <<END
--trace --log|--log-file --log-diag --log-android|
--log-file x enc|encap|
--misbehave=ref|refuse=|nospace
--misbehave=refuse=1:E||
misbehave silent del|delay=|nospace
proxy update --old tcp/1 u|udp/ udp6/|nospace nospace
proxy up --from a |||
encap set ||
frob ||
END

# Both, through their line editors: each line and what it becomes.
lines="encap p|encap pass-through |
--dry|--dry-run |
--misbehave=ref|--misbehave=refuse=|
proxy update --old tcp6|proxy update --old tcp6/|
--socket=$folder/a\\ f|--socket=$folder/a\\ file |
--socket=$folder/x=y/f|--socket=$folder/x=y/file |
--pcap $folder/x=y/f|--pcap $folder/x=y/file |
--pcap \"$folder/a b/c=|--pcap \"$folder/a b/c=d\" |
--pcap a=b --socket \"a b\" --log-file c\\ d enc|--pcap a=b --socket \"a b\" --log-file c\\ d encap |"
become=$(cut -d'|' -f2- <<<"$lines")
lines=$(cut -d'|' -f1 <<<"$lines")
{
  echo "PS1=; PATH=${tool%/*}:\$PATH; source $scripts/datapathctl.bash"
  echo "show() { echo \"<<\$READLINE_LINE>>\"; READLINE_LINE=; }; bind -x '\"\C-x\": show'"
  while IFS= read -r line; do printf 'datapathctl %s\t\x18\n' "$line"; done <<<"$lines"
  echo exit
} | TERM=dumb script -qec 'bash --norc --noprofile -i' /dev/null |
  sed -n 's/^<<datapathctl \(.*\)>>\r$/\1|/p' | diff - <(echo "$become") || status=1
if command -v zsh >/dev/null; then
  zsh -f "$(dirname "$0")/completion_test.zsh" "$tool" "$scripts" <<<"$lines" |
    diff - <(echo "$become") || status=1
else
  echo "zsh is not here: its completion is not tested"
fi
exit $status
