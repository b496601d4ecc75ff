# bash completion for datapathctl; tests/completion_test.sh holds it against the tool's help.
# shellcheck shell=bash

_datapathctl() {
  local word=$2 before=$3 path="" words="" i
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

  COMPREPLY=()
  case $before,$path in
    --library,* | --socket,* | --pcap,* | --log-file,* | *," batch" | *," emulator" | \
      *," decode")
      compopt -o default # Where nothing is offered, Readline completes and quotes files.
      ;;
    --misbehave,* | *," misbehave"*)
      words="none silent delay= truncate= garbage stale refuse= interrupt= family-id= absent"
      ;;
    --timeout,* | --from,* | --to,* | --selector,*) ;;
    *,) words="proxy ipsec encap lowlat ports reset state misbehave batch emulator monitor decode
        version help" ;;
    *," proxy") words="up down update unmap" ;;
    *," proxy up "* | *," proxy down "* | *," proxy update"*) words="tcp/ udp/ tcp6/ udp6/" ;;
    *," ipsec") words="add delete" ;;
    *," encap") words="set unset pass-through drop" ;;
    *," lowlat") words="add flush" ;;
  esac
  if [[ $word == -* ]]; then
    case $path in
      "") words="--help --version --library --emulate --socket --misbehave --timeout --trace --time
        --dry-run --hex --pcap --json --log-file --log-diag --log-android" ;;
      " proxy update"*) words="--help --old --new" ;;
      " proxy down"*) words="--help --from --to --selector --force" ;;
      " batch"*) words="--help --force" ;;
      " proxy "*) words="--help --from --to --selector" ;;
      *) words="--help" ;;
    esac
  fi
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
  [[ ${COMPREPLY[0]-} != *[=/] ]] || compopt -o nospace
}

complete -F _datapathctl datapathctl
