#!/usr/bin/env bash
# Measures the library against libmnl, libnl and bare system calls:
#
#   scripts/bench.sh [--vm] [--docs]
#
# Prints the tables and leaves them in build/bench, with all results, as table.md, *.json and *.svg.
# --vm measures whole calls in the VM, too, --docs puts tables and charts into docs/.
set -euo pipefail
cd "$(dirname "$0")/.."

vm=no
docs=no
for option in "$@"; do
  case $option in
    --vm) vm=yes ;;
    --docs) docs=yes ;;
    *)
      echo "usage: scripts/bench.sh [--vm] [--docs]" >&2
      exit 1
      ;;
  esac
done

build=build/bench
bin=$build/bin
repeated=(
  --benchmark_repetitions=25 --benchmark_min_time=0.01 --benchmark_enable_random_interleaving=true
)

# Prints the whole path of a library that a program loads.
library_of() {
  ldd "$1" | sed -nE "s|^\s*$2\S* => (\S+) .*|\1|p"
}

# Prints a file's sizes as lines "name TAB quantity TAB value".
measure_file() {
  local stripped
  stripped=$(mktemp)
  strip -o "$stripped" "$2"
  printf '%s\ttext\t%d\n' "$1" "$(size "$2" | awk 'NR == 2 { print $1 }')"
  # What the loader has to do, packed relocations counted one by one.
  printf '%s\trelocations\t%d\n' "$1" \
    "$(readelf --relocs --wide "$2" | grep -cE '^[0-9a-f]{16}' || true)"
  printf '%s\tstripped\t%d\n' "$1" "$(stat --format=%s "$stripped")"
  rm "$stripped"
}

# The library as a daemon loads it, its host's libraries there before, and all at once.
measure_loading() {
  local nl=$1
  shift
  for _ in {1..40}; do
    printf 'libcorvil_datapath_proxy\tload\t%d\n' \
      "$("$bin/load_time" "$@" "$bin/libcorvil_datapath_proxy.so")"
    printf 'libcorvil_datapath_proxy and its host\tload\t%d\n' \
      "$("$bin/load_time" "$bin/libcorvil_datapath_proxy.so")"
    printf 'libnl-genl and libnl\tload\t%d\n' "$("$bin/load_time" "$nl")"
  done
}

measure_files() {
  local genl nl
  genl=$(library_of $bin/datapath_bench libnl-genl-3)
  nl=$(library_of $bin/datapath_bench libnl-3)
  measure_file libcorvil_datapath_proxy $bin/libcorvil_datapath_proxy.so
  measure_file libnl-genl "$genl"
  measure_file libnl "$nl"
  measure_loading "$genl" $bin/libcorvil_{log,netlink,port_utils}.so \
    "$(library_of $bin/libcorvil_datapath_proxy.so liblog)"
}

measure_in_vm() {
  local root=$build/root library
  rm -rf $root
  mkdir -p $root/opt/bench
  cp --dereference $bin/datapath_bench $bin/libcorvil_*.so.1 $root/opt/bench
  ldd $bin/datapath_bench | sed -nE 's|.*=> (/\S*/lib\S*) .*|\1|p' | while read -r library; do
    case $library in
      "$PWD"/*) ;;
      *) cp --dereference "$library" $root/opt/bench ;;
    esac
  done
  EXTRA=$PWD/$root CLOCK=instructions scripts/vm.sh "/opt/bench/datapath_bench --target=kernel \
    --benchmark_repetitions=10 --benchmark_min_time=0.002 \
    --benchmark_enable_random_interleaving=true --benchmark_format=json" >$build/kernel.json
}

scripts/setup.sh bench
cmake --preset bench --log-level=WARNING
cmake --build --preset bench | tail -n 1

$bin/datapath_bench "${repeated[@]}" --benchmark_out=$build/results.json >/dev/null 2>$build/log
valgrind --quiet --tool=callgrind --combine-dumps=yes --callgrind-out-file=$build/callgrind.out \
  $bin/datapath_bench --count >$build/counts.tsv
measure_files >$build/files.tsv
rm -f $build/kernel.json
[ $vm = no ] || measure_in_vm
bench/report.py $build

# draw NAME HEADING
draw() {
  gnuplot -e "data='$build/$1.dat'; picture='$build/$1.svg'; heading='$2'" bench/chart.gp
}
draw build_instructions "Building requests: instructions, relative to libmnl"
draw build_time "Building requests: time, relative to libmnl"
draw call_time "Whole calls and reading back: time, relative to the bare system calls"
cat $build/table.md

if [ $docs = yes ]; then
  cp $build/{build_instructions,build_time,call_time}.svg docs
  sed -i -e "/^<!-- measured -->/,\$d" docs/performance.md
  { echo "<!-- measured -->" && echo && cat $build/table.md; } >>docs/performance.md
fi
