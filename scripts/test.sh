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

stages=(release asan style coverage arm device fuzz clang tools vm tsan analyzers vm_6.1 vm_faults
  package ynl_kernel android_bp reproducible docs tidy)

# build PRESET [OPTIONS OF CMAKE]
build() {
  cmake --preset "$1" --log-level=WARNING >/dev/null
  cmake --build "build/$1" "${@:2}"
}

# run_tests PRESET [OPTIONS OF CTEST]
run_tests() {
  build "$1"
  ctest --test-dir "build/$1" --output-on-failure --no-tests=error --parallel "$(nproc)" "${@:2}"
}

run_vm() {
  KERNEL=$1 scripts/vm.sh 'conformance_test --target=kernel && kernel_test'
}

# Prints how many lines, branches and conditions (MC/DC) of the library's unit its own tests reach,
# and fails when they miss one that can be reached. Where that is:
#
#   llvm-cov-19 show build/coverage/bin/library_test --instr-profile=build/coverage/profile \
#     --show-branches=count --show-mcdc --sources datapath_proxy/src
run_coverage() {
  local folder=build/coverage
  build coverage --target library_test
  LLVM_PROFILE_FILE=$folder/profraw $folder/bin/library_test --gtest_brief=1
  llvm-profdata-19 merge -o $folder/profile $folder/profraw
  llvm-cov-19 report $folder/bin/library_test --instr-profile=$folder/profile \
    --show-mcdc-summary | awk '
    /^datapath_proxy\/src\/[^ ]*\.(cpp|h) / {
      print $1 ": missed " $9 " of " $8 " lines, " $12 " of " $11 " branches, " $15 " of " $14 " conditions"
      # Three sizes that overflow abort, and nothing that fits in memory makes one.
      aborts = $1 ~ /datapath_request/ ? 3 : 0
      failed = failed || $3 > aborts || $12 > aborts || $15 > 0
      conditions += $14
    }
    END { exit failed || conditions == 0 }'
}

# Silent where there are no faults.
run_analyzers() {
  local options source test
  build release
  # at() checks its argument itself. A string_view is followed beyond the life of what it was made
  # of, to a call that is over by then. The tests' designated initializers are not understood. That
  # what load() copies may be copied as bytes, a static_assert sees to.
  cppcheck --project=build/release/compile_commands.json -itests --quiet \
    --enable=warning,performance,portability --suppress=containerOutOfBounds \
    --suppress=memsetClass:kernel_interface/protocol.h \
    --suppress={danglingTemporaryLifetime,invalidLifetime}:datapathctl/message_decoder.cpp \
    --suppress=missingIncludeSystem --error-exitcode=1

  # GCC 12 loses sight of a result that is constructed in its caller's frame: it seems unset, and
  # what it owns leaked. For these two there is valgrind.
  options=(-std=c++20 -O2 -fno-exceptions -Werror -fanalyzer
    -Wno-analyzer-use-of-uninitialized-value -Wno-analyzer-malloc-leak
    -I. -Idatapath_proxy/include -isystem /usr/include/android)
  for source in datapath_proxy/src/*.cpp reference_host/{log,netlink}/*.cpp; do
    g++ "${options[@]}" -c "$source" -o /dev/null
  done

  for test in library_test reference_host_test emulator_test conformance_test; do
    valgrind --quiet --leak-check=full --error-exitcode=1 \
      "build/release/bin/$test" --gtest_brief=1 >/dev/null
  done
}

run_stage() {
  case $1 in
    release | asan | clang | tsan) run_tests "$1" ;;
    style)
      git ls-files -z '*.h' '*.c' '*.cpp' | xargs -0 clang-format --dry-run -Werror
      shellcheck scripts/*.sh tests/*/*.sh .ci/run datapathctl/completion/datapathctl.bash
      ;;
    tools) # the tests of the stage release that it skips without other programs
      run_tests release --tests-regex '^(abi|completion|manual_pages|wireshark)$'
      ;;
    coverage | analyzers) "run_$1" ;;
    fuzz) scripts/fuzz.sh 5 ;;
    tidy)
      cmake --preset clang --log-level=WARNING >/dev/null
      run-clang-tidy -quiet -p build/clang >build/clang/tidy.log 2>&1 || {
        cat build/clang/tidy.log
        exit 1
      }
      ;;
    arm)
      run_tests arm
      run_tests arm64
      ;;
    device)
      build release --target datapathctl
      cmake --workflow --preset device
      tests/ship/device_test.sh
      ;;
    vm) run_vm 6.12 ;;
    vm_6.1) run_vm 6.1 ;;
    vm_faults) scripts/vm.sh 'fault_test --target=kernel' ;;
    docs)
      build release
      tests/ship/docs_test.py build/release docs
      ;;
    package | ynl_kernel | android_bp | reproducible) "tests/ship/$1_test.sh" ;;
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
