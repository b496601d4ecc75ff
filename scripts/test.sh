#!/usr/bin/env bash
# Builds and tests, stage by stage, and installs what a stage needs.
#
#   scripts/test.sh            what every change has to pass: the stages release and asan, that is all
#                              tests of library, host, emulator and tool, single faults, and the same
#                              under AddressSanitizer and UndefinedBehaviorSanitizer
#   scripts/test.sh --all      all stages
#   scripts/test.sh STAGE...   these; "scripts/test.sh --list" names them
set -euo pipefail
cd "$(dirname "$0")/.."

stages=(release asan style coverage arm device fuzz clang tools vm tsan analyzers tidy vm_6.1 vm_faults
  package ynl_kernel android_bp reproducible docs)

run_tests() {
  ctest --test-dir "build/$1" --output-on-failure --no-tests=error "${@:2}"
}

run_preset() {
  cmake --preset "$1" --log-level=WARNING >/dev/null
  cmake --build --preset "$1"
  run_tests "$1" --parallel "$(nproc)"
}

run_vm() {
  KERNEL=$1 scripts/vm.sh 'conformance_test --target=kernel && kernel_test'
}

run_stage() {
  case $1 in
    release | asan | clang | tsan)
      run_preset "$1"
      ;;
    style)
      git ls-files -z '*.h' '*.c' '*.cpp' | xargs -0 clang-format --dry-run -Werror
      shellcheck scripts/*.sh tests/*.sh tests/*/*.sh .ci/run datapathctl/completion/datapathctl.bash
      ;;
    tools) # the tests of the stage release that it skips without other programs
      cmake --preset release --log-level=WARNING >/dev/null
      cmake --build --preset release
      run_tests release --tests-regex '^(abi|completion|manual_pages|wireshark)$'
      ;;
    coverage) tests/library/coverage.sh ;;
    fuzz) scripts/fuzz.sh 5 ;;
    tidy)
      cmake --preset clang --log-level=WARNING >/dev/null
      run-clang-tidy -quiet -p build/clang >build/clang/tidy.log 2>&1 || {
        cat build/clang/tidy.log
        exit 1
      }
      ;;
    arm)
      run_preset armhf
      run_preset arm64
      ;;
    device)
      cmake --preset release --log-level=WARNING >/dev/null
      cmake --build --preset release --target datapathctl
      cmake --workflow --preset device
      tests/ship/device_test.sh
      ;;
    vm) run_vm 6.12 ;;
    vm_6.1) run_vm 6.1 ;;
    vm_faults) scripts/vm.sh 'fault_test --target=kernel' ;;
    analyzers) tests/analyze.sh ;;
    docs)
      cmake --preset release --log-level=WARNING >/dev/null
      cmake --build --preset release
      tests/ship/docs_test.py build/release docs
      ;;
    package | ynl_kernel | android_bp | reproducible)
      "tests/ship/$1_test.sh"
      ;;
  esac
}

case "${1:-}" in
  '') chosen=(release asan) ;;
  --all) chosen=("${stages[@]}") ;;
  --list)
    printf '%s\n' "${stages[@]}"
    exit
    ;;
  *) chosen=("$@") ;;
esac
for stage in "${chosen[@]}"; do
  if [[ " ${stages[*]} " != *" $stage "* ]]; then
    echo "usage: scripts/test.sh [--all | --list | STAGE...]" >&2
    exit 1
  fi
done
for stage in "${chosen[@]}"; do
  echo "== $stage"
  scripts/setup.sh "$stage"
  run_stage "$stage"
done
