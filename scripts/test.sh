#!/usr/bin/env bash
# Builds everything and passes all tests: g++, clang++ with clang-tidy, and the sanitizers.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh test

git ls-files -z '*.h' '*.cpp' | xargs -0 clang-format --dry-run -Werror
shellcheck scripts/*.sh .ci/run

for preset in release clang asan tsan; do
  echo "== $preset"
  cmake --preset "$preset" --log-level=WARNING
  cmake --build --preset "$preset"
  ctest --preset "$preset" --parallel "$(nproc)"
done
