#!/usr/bin/env bash
# Prints how many lines, branches and conditions (MC/DC) of the library's unit its own tests
# (library_test) reach, and fails when they miss one that can be reached. Where that is:
#
#   llvm-cov-19 show build/coverage/bin/library_test --instr-profile=build/coverage/profile \
#     --show-branches=count --show-mcdc --sources datapath_proxy/src
set -euo pipefail
cd "$(dirname "$0")/../.."

scripts/setup.sh coverage
cmake --preset coverage --log-level=WARNING
cmake --build --preset coverage

build=build/coverage
LLVM_PROFILE_FILE=$build/profraw $build/bin/library_test --gtest_brief=1
llvm-profdata-19 merge -o $build/profile $build/profraw
llvm-cov-19 report $build/bin/library_test --instr-profile=$build/profile --show-mcdc-summary | awk '
  /^datapath_proxy\/src\/[^ ]*\.(cpp|h) / {
    print $1 ": missed " $9 " of " $8 " lines, " $12 " of " $11 " branches, " $15 " of " $14 " conditions"
    # Three sizes that overflow abort, and nothing that fits in memory makes one.
    aborts = $1 ~ /datapath_request/ ? 3 : 0
    failed = failed || $3 > aborts || $12 > aborts || $15 > 0
    conditions += $14
  }
  END { exit failed || conditions == 0 }'
