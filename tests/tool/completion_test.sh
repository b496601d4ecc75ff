#!/usr/bin/env bash
# What bash offers for datapathctl when Tab is pressed: completion_test.sh DATAPATHCTL SCRIPT
set -euo pipefail
PATH=$(dirname "$1"):$PATH
# shellcheck source=datapathctl/completion/datapathctl.bash
source "$2"
compopt() { :; } # It works only while a line is edited.

# Lines and, behind a '|', what is offered at their end.
while IFS='|' read -r line offers; do
  read -ra COMP_WORDS <<<"datapathctl ${line//=/ = }" # Readline takes a '=' for a word.
  [[ -n $line && $line != *' ' ]] || COMP_WORDS+=("")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  _datapathctl datapathctl "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
  diff <(echo "$line|$offers") <(echo "$line|${COMPREPLY[*]-}")
done <<'END'
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
--pcap=a --log-file c enc|encap
proxy update --old tcp/1 u|udp/ udp6/
proxy up wlan0 |tcp/ udp/ tcp6/ udp6/
proxy up --from a|
ipsec add |
frob |
END
