#!/usr/bin/env bash
# Builds everything and passes all tests: with g++, with clang++ and clang-tidy, with the sanitizers,
# for ARM, under the fuzzer for a few seconds, and with every branch of the library's unit taken.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh test

git ls-files -z '*.h' '*.c' '*.cpp' | xargs -0 clang-format --dry-run -Werror
shellcheck scripts/*.sh .ci/run

run_preset() {
  echo "== $1"
  cmake --preset "$1" --log-level=WARNING
  cmake --build --preset "$1"
  ctest --preset "$1" --parallel "$(nproc)"
}

for preset in release clang asan tsan; do
  run_preset "$preset"
done

if command -v arm-linux-gnueabihf-g++ >/dev/null && command -v aarch64-linux-gnu-g++ >/dev/null &&
  command -v qemu-arm >/dev/null && [ -d /usr/src/googletest ]; then
  run_preset armhf
  run_preset arm64
else
  echo "== armhf, arm64: skipped, their packages are not all here (scripts/setup.sh test says why)"
fi

echo "== fuzz"
scripts/fuzz.sh 5

echo "== coverage"
scripts/coverage.sh
