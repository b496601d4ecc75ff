#!/bin/sh
# Cases that only a real kernel can give. Runs as root inside the VM of scripts/vm.sh:
#
#   kernel_test           every case, each on the freshly loaded module in a folder of its own
#   kernel_test CASE      one case here, as it stands
#
# A case is a list of commands that all have to succeed.
#
# shellcheck disable=SC2317 # the cases are found by their names
# shellcheck shell=dash
set -eu

# refused TEXT COMMAND...: datapathctl fails, with TEXT among its errors.
refused() {
  local text=$1 status=0
  shift
  "$@" 2>error || status=$?
  [ $status -eq 2 ]
  grep -F "$text" error
}

# eventually COMMAND...: repeats it until it succeeds, for 30 s at most.
eventually() {
  local end
  end=$(($(date +%s) + 30))
  until "$@"; do
    [ "$(date +%s)" -lt $end ]
    sleep 0.1
  done
}

state_is() {
  [ "$(cat /proc/net/tavik_wlan)" = "$1" ]
}

# autoload PROGRAM: what the kernel runs to load a module.
autoload() {
  echo "$1" >/proc/sys/kernel/modprobe
}

# Prints the commands that add 60,000 tuples, from port 2 on.
many_commands() {
  seq 2 4000 56002 | while read -r first; do
    echo "proxy update --new tcp/$first-$((first + 3999))"
  done
}

# How many small objects the kernel holds, or held.
objects() {
  awk '/^kmalloc/ { count += $2 } END { print count }' "${1:-/proc/slabinfo}"
}

objects_are_below() {
  [ "$(objects)" -lt "$1" ]
}

# Adds and deletes the tuple before all others, without a pause, until there is a file stop.
churn() {
  until [ -e stop ]; do
    printf 'proxy update --new tcp/1\nproxy update --old tcp/1\n'
  done | datapathctl batch -
}

test_a_caller_follows_the_family_to_the_id_that_a_reload_gives_it() {
  mkfifo commands
  datapathctl batch - <commands &
  exec 5>commands
  echo "proxy update --new tcp/1" >&5
  eventually state_is "tuple ipv4 tcp 1"
  rmmod tavik_wlan
  modprobe tavik_wlan
  echo "proxy update --new tcp/2" >&5
  exec 5>&-
  wait $!
  state_is "tuple ipv4 tcp 2"
}

test_a_monitor_sees_what_a_caller_says_that_knows_nothing_of_it() {
  mkfifo commands
  datapathctl batch - <commands 2>/dev/null &
  caller=$!
  exec 5>commands
  datapathctl --pcap seen.pcap monitor >seen &
  monitor=$!
  eventually grep -q ' 0003 ' /proc/net/packet # The monitor has bound its socket.
  echo "proxy update --new tcp/1" >&5
  eventually state_is "tuple ipv4 tcp 1"
  rmmod tavik_wlan
  modprobe tavik_wlan
  echo "proxy update --old tcp/2" >&5
  exec 5>&-
  wait $caller || [ $? -eq 2 ]
  eventually grep -q ERROR seen
  kill -INT $monitor
  wait $monitor
  [ "$(ip link | grep -c nlmon)" -eq 0 ]
  datapathctl decode seen.pcap | cmp - seen
  sed -E 's/^[0-9:.]+ //; s/(client) [1-9][0-9]* /\1 /; s/(nlctrl [A-Z]+) .*/\1/' seen >lines
  cmp lines - <<'END'
> ADD_TUPLES TUPLES ["ipv4 tcp 1"]
client < ACK ADD_TUPLES
< nlctrl DELFAMILY
< nlctrl NEWFAMILY
> DEL_TUPLES TUPLES ["ipv4 tcp 2"]
client < ERROR ENOENT DEL_TUPLES MSG "no such tuple", TUPLES[0].TUPLE "ipv4 tcp 2"
END
}

test_an_absent_module_is_reported_or_loaded() {
  rmmod tavik_wlan
  autoload /bin/false
  refused "the kernel has no family TAVIK_WLAN" datapathctl reset
  autoload /sbin/modprobe
  datapathctl reset
}

test_configuring_takes_the_capability_in_the_network_namespace() {
  setpriv=/usr/bin/setpriv # not the shell's own, which knows less
  datapathctl proxy update --new tcp/1
  for command in "proxy update --old tcp/1" "lowlat flush" reset; do
    # shellcheck disable=SC2086 # the words of a command
    refused "(EPERM)" $setpriv --bounding-set -net_admin datapathctl $command
    # shellcheck disable=SC2086
    refused "(EPERM)" $setpriv --reuid 1000 unshare -U -r datapathctl $command
  done
  state_is "tuple ipv4 tcp 1"
  $setpriv --bounding-set -net_admin datapathctl ports
  $setpriv --reuid 1000 unshare -U -r -n datapathctl proxy update --new tcp/2
}

test_network_namespaces_share_nothing() {
  datapathctl proxy update --new tcp/1
  unshare -n sh -ec 'datapathctl state; datapathctl proxy update --new tcp/2; datapathctl reset
    datapathctl proxy update --new tcp/3; datapathctl ports; cat /proc/net/tavik_wlan' >inside
  printf 'tcp/3\ntuple ipv4 tcp 3\n' | cmp inside -
  state_is "tuple ipv4 tcp 1"
}

test_state_is_freed_with_its_namespace_and_with_the_module() {
  many_commands >many
  datapathctl batch many
  held=$(objects)
  rmmod tavik_wlan
  eventually objects_are_below $((held - 50000))
  modprobe tavik_wlan
  unshare -n sh -ec 'datapathctl batch many; cat /proc/slabinfo' >held
  eventually objects_are_below $(($(objects held) - 50000))
}

# The first attempt of a dump that changes interrupt has every tuple that stays, once.
test_a_long_dump_stands_changes() {
  many_commands | datapathctl batch -
  seq 2 60001 | sed 's/^/tuple ipv4 tcp /' >stable
  trap 'touch stop; wait' EXIT
  churn &
  for _ in 1 2 3 4 5; do
    datapathctl --timeout 60000 --trace=full ports >trace 2>&1 ||
      grep "interrupted by changes" trace
    awk '/^> .*GET_TUPLES/ { dumps++ } dumps < 2' trace | grep -o 'ipv4 tcp [0-9]*' |
      sed 's/^/tuple /' | grep -vw 1 | cmp stable -
    [ "$(grep -c '^> .*GET_TUPLES' trace)" -eq 1 ] || break
  done
  [ "$(grep -c '^> .*GET_TUPLES' trace)" -gt 1 ] # or no change came into its way
  grep -vw 1 /proc/net/tavik_wlan | cmp stable -
}

test_the_state_is_whole_whatever_size_it_is_read_in() {
  datapathctl proxy up wlan0 --from wwan0 --to wlan0 tcp/1000-1999
  datapathctl lowlat add ::1 1 ::2 2
  {
    seq 1000 1999 | sed 's/^/tuple ipv4 tcp /'
    printf '%s\n' "device 0 wlan0" "forward 0 wwan0 wlan0" "lowlat ::1 1 ::2 2"
  } >expected
  for size in 1 77 4096 100000; do
    dd bs=$size </proc/net/tavik_wlan | cmp expected -
  done
  dd bs=1 skip=15000 </proc/net/tavik_wlan >rest
  cmp expected rest 15000
}

test_the_kernel_found_nothing_to_complain_of() {
  ! dmesg | grep -E 'WARNING|BUG|Oops|INFO: |stall|refcount|leak|protection fault|locking'
}

if [ $# -gt 0 ]; then
  set -x
  "test_$1"
  exit
fi

folder=$(mktemp -d)
failed=0
cases=$(sed -n 's/^test_\([a-z_]*\)() {$/\1/p' "$0")
for case in $cases; do
  mkdir "$folder/$case"
  cd "$folder/$case"
  autoload /sbin/modprobe
  rmmod tavik_wlan || true
  modprobe tavik_wlan
  if sh "$0" "$case" >log 2>&1; then
    echo "ok   $case"
  else
    failed=$((failed + 1))
    echo "FAIL $case"
    tail -n 30 log
  fi
done
rm -rf "$folder"
[ $failed -eq 0 ]
