#!/usr/bin/env bash
# Builds everything and passes all tests: with g++, with clang++ and clang-tidy, with the sanitizers,
# for ARM, in a VM with the kernel module, under the fuzzer for a few seconds, and with every condition
# of the library's unit seen to matter.
#
#   scripts/test.sh         what every change has to pass
#   scripts/test.sh --all   the slow checks, too: clang++ without sanitizers, the VM with each kernel,
#                           faults before the module, packages, reproducibility, the kernel's
#                           netlink tools, the device's build
set -euo pipefail
cd "$(dirname "$0")/.."

purpose="test"
presets=(release asan tsan)
kernels=(6.12)
case "${1:-}" in
  '') ;;
  --all)
    purpose="all"
    presets+=(clang)
    kernels+=(6.1)
    ;;
  *)
    echo "usage: scripts/test.sh [--all]" >&2
    exit 1
    ;;
esac

scripts/setup.sh $purpose

git ls-files -z '*.h' '*.c' '*.cpp' | xargs -0 clang-format --dry-run -Werror
shellcheck scripts/*.sh reference_kernel/vm/*.sh tests/*.sh .ci/run \
  datapathctl/completion/datapathctl.bash

run_preset() {
  echo "== $1"
  cmake --preset "$1" --log-level=WARNING
  cmake --build --preset "$1"
  ctest --preset "$1" --parallel "$(nproc)"
}

run_vm() {
  echo "== VM, kernel $1"
  if ! obstacle=$(KERNEL=$1 scripts/vm.sh --check 2>&1); then
    echo "skipped: $obstacle"
    return
  fi
  KERNEL=$1 scripts/vm.sh 'conformance_test --target=kernel && kernel_test'
}

for preset in "${presets[@]}"; do
  run_preset "$preset"
done

if command -v arm-linux-gnueabihf-g++ >/dev/null && command -v aarch64-linux-gnu-g++ >/dev/null &&
  command -v qemu-arm >/dev/null && [ -d /usr/src/googletest ]; then
  run_preset armhf
  run_preset arm64
else
  echo "== armhf, arm64: skipped, their packages are not all here (scripts/setup.sh test says why)"
fi

for kernel in "${kernels[@]}"; do
  run_vm "$kernel"
done

echo "== analyzers"
scripts/analyze.sh

echo "== fuzz"
scripts/fuzz.sh 5

echo "== coverage"
scripts/coverage.sh

if [ $purpose = all ]; then
  if scripts/vm.sh --check >/dev/null 2>&1; then
    echo "== faults before the module"
    scripts/vm.sh 'fault_test --target=kernel --gtest_brief=1'
  fi
  for slow in ynl_kernel android_bp package reproducible; do
    echo "== $slow"
    "tests/${slow}_test.sh" || [ $? -eq 77 ] # skipped
  done
fi
