#!/usr/bin/env bash
# The manual pages are well-formed, and say what the tool and the library have:
# man_test.sh DATAPATHCTL SOURCE_FOLDER
set -euo pipefail
tool=$1
cd "$2"
command=docs/man/datapathctl.1
library=docs/man/corvil_datapath_proxy.3
header=datapath_proxy/include/corvil_datapath_proxy.h
if ! command -v man >/dev/null || ! command -v mandoc >/dev/null; then
  echo "man or mandoc is not here"
  exit 77
fi

for page in "$command" "$library"; do
  diff /dev/null <(man --warnings -E UTF-8 -l -Tutf8 -Z "$page" 2>&1 >/dev/null)
  diff /dev/null <(mandoc -Tlint "$page")
done

# tags PAGE FIRST LAST: the tags of paragraphs from one section up to another.
tags() { sed -n "/^\.SH $2/,/^\.SH $3/{/^\.T[PQ]/{n;p}}" "$1" | sed 's/\\f[BIR]//g; s/\\-/-/g'; }
# Options and commands stand in the tool's help as on the page; what a command takes, in its own.
diff <("$tool" --help | sed -nE 's/^  (-.,)?(--[a-z-]+( [A-Z]+)?)( .*|$)/\2/p') \
  <(tags "$command" OPTIONS COMMANDS | sed 's/^-., //; s/\[=.*//')
names=()
while read -ra form; do
  name=() own=() option=""
  for word in "${form[@]}"; do
    word=${word#[} word=${word%]}
    case $word in
      [a-z]*) name+=("$word") ;;
      --*) own+=("$word") ;;
      *) [ -n "$option" ] || own+=("${word%...}") ;; # not an option's value
    esac
    option=${word%%[!-]*}
  done
  names+=("${name[*]}")
  diff <("$tool" "${name[@]}" --help | sed -nE '/^  -h/d; s/^  ([-A-Za-z_]+).*/\1/p' | sort) \
    <(printf '%s\n' "${own[@]}" | sed '/^$/d' | sort)
done < <(tags "$command" COMMANDS MISBEHAVIOUR)
diff <("$tool" help | sed -nE 's/^Usage: datapathctl ([a-z -]*[a-z]).*/\1/p') \
  <(printf '%s\n' "${names[@]}")
diff <("$tool" misbehave help | sed -n 's/.*those before: //p' | sed 's/, /\n/g') \
  <(sed -n '/^\.TS/,/^\.TE/{s/\\f[BIR]//g; s/\\-/-/g; s/\t.*//p}' "$command")
grep -q "^\.TH .*\"$("$tool" --version)\"" "$command"

prototypes() { awk '/^int corvil_/, /;$/' "$1"; }
diff <(prototypes "$header") <(prototypes "$library")
diff <(sed -n 's/^int \(corvil_[a-z_]*\)(.*/\1/p' "$header") \
  <(lexgrog "$library" | sed 's/^[^"]*"\([^ ]*\) .*/\1/')

# The library's messages of failure, up to the first value in them, are explained.
grep -ohE '"%s\(\): [^"]*([Ff]ail|[Ii]nvalid|Too|Error)[^"]*"' datapath_proxy/src/*.cpp |
  sed -E 's/^"%s\(\): //; s/(%|\\n|").*//' | while read -r message; do
  grep -qF -- "$message" docs/troubleshooting.md || { echo "not explained: $message"; exit 1; }
done

# The library's example compiles; docs_test.py runs those of the tool.
sed -n '/^\.SH EXAMPLES/,$p' "$library" | sed -n '/^\.EX/,/^\.EE/{/^\.E/!p}' |
  sed 's/\\e/\\/g; s/\\-/-/g' | "${CC:-cc}" -std=c11 -Wall -Wextra -Werror -fsyntax-only -xc -I . \
  -I "$(dirname "$header")" -
