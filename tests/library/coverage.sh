#!/usr/bin/env bash
# Prints which lines, branches and conditions of the library's unit its own tests (library_test)
# reach, and fails when they miss one that can be reached.
set -euo pipefail
cd "$(dirname "$0")/../.."

scripts/setup.sh coverage
cmake --preset coverage --log-level=WARNING
cmake --build --preset coverage

build=build/coverage
LLVM_PROFILE_FILE=$build/profraw $build/bin/library_test --gtest_brief=1
llvm-profdata-19 merge -o $build/profile $build/profraw
llvm-cov-19 export $build/bin/library_test -instr-profile=$build/profile | tests/library/coverage_report.py
