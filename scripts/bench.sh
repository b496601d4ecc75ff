#!/usr/bin/env bash
# Measures the library's calls beside the same requests sent by means of libmnl and of libnl:
#
#   scripts/bench.sh [--vm]
#
# Prints one table, which it leaves in build/bench as table.md beside its chart, instructions.svg.
# --vm measures the calls to the kernel module, too, in the VM.
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/bench
table=$build/table.md

scripts/setup.sh bench >&2
cmake --preset bench --log-level=WARNING >&2
cmake --build --preset bench --target datapath_bench datapathctl | tail -n 1 >&2

$build/bin/datapathctl emulator $build/kernel >/dev/null &
emulator=$!
trap 'kill $emulator' EXIT
until [ -S $build/kernel ]; do
  kill -0 $emulator
  sleep 0.1
done

measure_in_vm() {
  local root=$PWD/$build/root libraries
  mapfile -t libraries < <(ldd $build/bin/datapath_bench | awk '$3 ~ "^/(usr/)?lib" { print $3 }')
  mkdir -p "$root/opt/bench"
  cp --dereference $build/bin/{datapath_bench,libcorvil_*.so.1} "${libraries[@]}" "$root/opt/bench"
  EXTRA=$root CLOCK=instructions scripts/vm.sh \
    '/opt/bench/datapath_bench "instructions, VM"'
}

{
  echo "| what | unit | library | libmnl | libnl | to libmnl | to libnl |"
  echo "|---|---|---:|---:|---:|---:|---:|"
  CORVIL_NETLINK_EMULATOR=$build/kernel valgrind --quiet --tool=callgrind --collect-atstart=no \
    --callgrind-out-file=$build/callgrind.out \
    $build/bin/datapath_bench "instructions, emulator" $build/callgrind.out
  [ "${1:-}" != --vm ] || measure_in_vm
} | tee $table
rm -f $build/callgrind.out*

gnuplot <<END
set terminal svg size 1000,500 dynamic noenhanced font "sans-serif,13" background "white"
set output "$build/instructions.svg"
set title "Instructions of a call on the emulator, relative to libmnl"
set datafile separator "|"
set style data histograms
set style fill solid noborder
set xtics rotate by -40 nomirror
set yrange [0:*]
set rmargin 16
set key outside center top horizontal
rows = "< grep 'instructions, emulator' $table"
plot rows using (\$4/\$5):xtic(2) title "library" lc rgb "#1f77b4", \
     1 title "libmnl" lc rgb "black" dt 2, rows using (\$6/\$5) title "libnl" lc rgb "#d62728"
END
