#!/usr/bin/env bash
# Measures the library beside clients on libmnl and on libnl and the bare system calls:
#
#   scripts/bench.sh [--vm]
#
# Prints one table, which it leaves in build/bench as table.md beside its chart, instructions.svg.
# --vm measures whole calls to the kernel module, too, in the VM.
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/bench
bench=$build/bin/datapath_bench
table=$build/table.md

scripts/setup.sh bench >&2
cmake --preset bench --log-level=WARNING >&2
cmake --build --preset bench --target datapath_bench | tail -n 1 >&2

exec 3< <(exec $bench emulator $build/kernel)
emulator=$!
trap 'kill $emulator' EXIT
read -r _ <&3 || true # It closes its output when it is there.

with_emulator() {
  CORVIL_NETLINK_EMULATOR=$build/kernel "$@"
}

measure_in_vm() {
  local root=$PWD/$build/root libraries
  mapfile -t libraries < <(ldd $bench | awk '$3 ~ "^/(usr/)?lib" { print $3 }')
  mkdir -p "$root/opt/bench"
  cp --dereference $bench $build/bin/libcorvil_*.so.1 "${libraries[@]}" "$root/opt/bench"
  EXTRA=$root CLOCK=instructions scripts/vm.sh \
    '/opt/bench/datapath_bench calls "instructions, VM"'
}

{
  echo "| what | unit | library | libmnl | libnl | system calls | to libmnl | to libnl" \
    "| to system calls | heap allocations |"
  echo "|---|---|---:|---:|---:|---:|---:|---:|---:|---|"
  with_emulator valgrind --quiet --tool=callgrind --callgrind-out-file=$build/callgrind.out \
    $bench count instructions $build/callgrind.out
  with_emulator $bench calls "ns, emulator"
  $bench look-up "ns, this kernel"
  [ "${1:-}" != --vm ] || measure_in_vm
} | tee $table
rm -f $build/callgrind.out*

gnuplot <<EOF
set terminal svg size 1000,500 dynamic noenhanced font "sans-serif,13" background "white"
set output "$build/instructions.svg"
set title "Instructions, relative to libmnl"
set datafile separator "|"
set style data histograms
set style fill solid noborder
set xtics rotate by -40 nomirror
set yrange [0:*]
set rmargin 16
set key outside center top horizontal
rows = "< grep '| instructions |' $table | grep -v 'sinks off'"
plot rows using (\$4/\$5):xtic(2) title "library" lc rgb "#1f77b4", \
     1 title "libmnl" lc rgb "black" dt 2, rows using (\$6/\$5) title "libnl" lc rgb "#d62728"
EOF
