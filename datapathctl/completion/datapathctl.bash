# bash completion for datapathctl. The tool itself is asked what may stand at the cursor.
# shellcheck shell=bash

_datapathctl() {
  local line=${COMP_LINE:0:COMP_POINT} words=() candidate
  # Blanks part words, except those that are quoted; the last quote may still be open.
  local form="^([^[:space:]\\\"']|\\\\.|\"([^\\\"]|\\\\.)*\"|'[^']*')*(\\\\|\"([^\\\"]|\\\\.)*\\\\?|'[^']*)?"
  while
    line=${line#"${line%%[![:space:]]*}"}
    [[ $line =~ $form ]]
    words+=("${BASH_REMATCH[0]//[\\\"\']/}")
    line=${line:${#BASH_REMATCH[0]}}
    [ -n "$line" ]
  do :; done
  local word=${words[-1]}
  # Readline replaces its own last word only, which may begin behind an '=' or ':'.
  local kept=${word%"${2//\\/}"} option=""
  [[ $word != --*=* ]] || option=${word%%=*}=

  COMPREPLY=()
  while IFS= read -r line; do
    candidate=${line%%$'\t'*}
    if [[ $line == :files ]]; then
      compopt -o filenames
      while IFS= read -r candidate; do
        candidate=$option$candidate
        COMPREPLY+=("${candidate#"$kept"}")
      done < <(compgen -f -- "${word#"$option"}")
    else
      [[ $candidate != *[=/] ]] || compopt -o nospace
      COMPREPLY+=("${candidate#"$kept"}")
    fi
  done < <("$1" complete -- "${words[@]:1}" 2>/dev/null)
}

complete -F _datapathctl datapathctl
