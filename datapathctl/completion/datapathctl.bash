# bash completion for datapathctl. The tool itself is asked what may stand at the cursor.
# shellcheck shell=bash

_datapathctl() {
  local words line candidate
  read -ra words <<<"${COMP_LINE:0:COMP_POINT}"
  [[ ${COMP_LINE:0:COMP_POINT} != *[[:space:]] ]] || words+=("")
  local word=${words[-1]}
  # Readline replaces only what follows the last of these, unless they are no word breaks.
  local kept=""
  [[ $word != *[=:]* || $COMP_WORDBREAKS != *=* ]] || kept=${word%"${word##*[=:]}"}

  COMPREPLY=()
  while IFS= read -r line; do
    candidate=${line%%$'\t'*}
    if [[ $line == :files ]]; then
      compopt -o filenames
      mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -- "${word##*=}")
    else
      [[ $candidate != *[=/] ]] || compopt -o nospace
      COMPREPLY+=("${candidate#"$kept"}")
    fi
  done < <("$1" complete -- "${words[@]:1}" 2>/dev/null)
}

complete -F _datapathctl datapathctl
