#!/usr/bin/env bash
# Prints which lines and branches of the library's unit its own tests (library_test) reach. Fails
# when they miss one.
set -euo pipefail
cd "$(dirname "$0")/.."

# What no test can reach: a size that overflows aborts, which no input that fits in memory makes it.
unreachable_lines='.*\babort\(\);.*'
unreachable_branches='.*(__builtin_(add|mul)_overflow|length >= UINT32_MAX).*'

build=build/coverage
scripts/setup.sh test
cmake --preset coverage --log-level=WARNING
find $build -name '*.gcda' -delete # counters of earlier runs
cmake --build --preset coverage
$build/bin/library_test --gtest_brief=1
FAKE_HOST_SILENT=1 $build/bin/library_test --gtest_brief=1 --gtest_filter=-LogTest.*

# report KIND OPTIONS...: the figures of each file, and each place that was missed as "file:line".
report() {
  local kind=$1 table=$build/$1.txt result=0
  shift
  gcovr --root . --filter datapath_proxy/src/ --exclude-lines-by-pattern "$unreachable_lines" \
    --exclude-branches-by-pattern "$unreachable_branches" --txt "$table" "$@" \
    $build/datapath_proxy $build/tests || result=1
  # The columns: file, total, taken, percentage, missed lines. A long file name stands alone.
  awk -v kind="$kind" '
    /^(datapath_proxy|TOTAL)/ { file = $1; $1 = ""; $0 = $0 }
    file != "" && $1 ~ /^[0-9]+$/ {
      print file ": " $2 " of " $1 " " kind
      count = split($4, missed, ",")
      for (i = 1; i <= count; ++i) print "  not all " kind " taken: " file ":" missed[i]
      file = ""
    }' "$table"
  return $result
}

status=0
report lines --fail-under-line 100 || status=1
report branches --branches --fail-under-branch 100 || status=1
exit $status
