#!/usr/bin/env bash
# Prints which lines, branches and conditions of the library's unit its own tests (library_test)
# reach, and fails when they miss one that can be reached.
set -euo pipefail
cd "$(dirname "$0")/../.."

scripts/setup.sh coverage
cmake --preset coverage --log-level=WARNING
cmake --build --preset coverage

build=build/coverage
LLVM_PROFILE_FILE=$build/logging.profraw $build/bin/library_test --gtest_brief=1
LLVM_PROFILE_FILE=$build/silent.profraw FAKE_HOST_SILENT=1 $build/bin/library_test \
  --gtest_brief=1 --gtest_filter=-LogTest.*
llvm-profdata-19 merge -o $build/profile $build/logging.profraw $build/silent.profraw
llvm-cov-19 export $build/bin/library_test -instr-profile=$build/profile | tests/library/coverage_report.py
