# bash completion for datapathctl, which offers what the tool's own help has.
# shellcheck shell=bash

_datapathctl() {
  local tool=$1 word=$2 before=$3 path="" words="" i
  # Readline takes "--socket=x" for three words.
  [[ $word != = ]] || word="" before="="
  [[ $before != = ]] || before=${COMP_WORDS[COMP_CWORD - 1]}
  [[ $before != = ]] || before=${COMP_WORDS[COMP_CWORD - 2]}
  for ((i = 1; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in
      --library | --socket | --misbehave | --timeout | --pcap | --log-file)
        [[ ${COMP_WORDS[i + 1]} != = ]] || ((++i))
        ((++i))
        ;;
      -*) ;;
      *) path+=" ${COMP_WORDS[i]}" ;;
    esac
  done

  case $before,$path in
    --library,* | --socket,* | --pcap,* | --log-file,* | *," batch" | *," emulator" | \
      *," decode")
      compopt -o default # Where nothing is offered, Readline completes and quotes files.
      ;;
    --misbehave,* | *," misbehave"*)
      words=$("$tool" misbehave help | sed -n 's/.*those before: //p' | sed 's/=[^,]*/=/g; s/,//g')
      ;;
    --timeout,* | --from,* | --to,* | --selector,*) ;;
    *," proxy up "* | *," proxy down "* | *," proxy update"*) words="tcp/ udp/ tcp6/ udp6/" ;;
    *) words=$("$tool" help | sed -n "s/^Usage: datapathctl$path \([a-z][a-z-]*\) .*/\1/p") ;;
  esac
  if [[ $word == -* ]]; then # shellcheck disable=SC2086 # an object and a verb
    words=$("$tool" $path --help 2>/dev/null | sed -n 's/^  \(-.,\)\?\(--[a-z-]*\).*/\2/p')
  fi
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word" | uniq)
  [[ ${COMPREPLY[0]-} != *[=/] ]] || compopt -o nospace
}

complete -F _datapathctl datapathctl
