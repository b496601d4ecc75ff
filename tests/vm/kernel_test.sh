#!/bin/sh
# Cases that only a real kernel can give. Runs as root inside the VM of scripts/vm.sh, each case on
# the freshly loaded module.
#
# shellcheck disable=SC2317 # the cases are found by their names
# shellcheck shell=dash
set -eu

folder=$(mktemp -d)

fail() {
  echo "$*" >&2
  exit 1
}

# same EXPECTED ACTUAL
same() {
  [ "$1" = "$2" ] || fail "expected:
$1
actual:
$2"
}

# refused TEXT COMMAND...: datapathctl fails, with TEXT among its errors.
refused() {
  local text=$1 status=0
  shift
  "$@" 2>error || status=$?
  same 2 "$status"
  grep -qF "$text" error || fail "not '$text' but: $(cat error)"
}

# eventually COMMAND...: waits until it succeeds.
eventually() {
  local tries=100
  until "$@"; do
    tries=$((tries - 1))
    [ $tries -gt 0 ] || fail "not even after 10 s: $*"
    sleep 0.1
  done
}

state() {
  cat /proc/net/tavik_wlan
}

state_is() {
  [ "$(state)" = "$1" ]
}

# Prints the family's id.
family_id() {
  datapathctl --trace ports | sed -n 's/^ *FAMILY_ID //p'
}

# autoload PROGRAM: what the kernel runs to load a module.
autoload() {
  echo "$1" >/proc/sys/kernel/modprobe
}

# Prints the commands that add 60,000 tuples.
many_commands() {
  seq 1 4000 56001 | while read -r first; do
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

test_a_caller_follows_the_family_to_its_new_id() {
  mkfifo commands
  datapathctl batch - <commands &
  exec 5>commands
  echo "encap set 1" >&5
  eventually state_is "encap 1"
  before=$(family_id)
  rmmod tavik_wlan
  modprobe fou # another family, which takes the next id
  modprobe tavik_wlan
  [ "$(family_id)" != "$before" ] || fail "the id is $before still"
  echo "encap set 2" >&5
  exec 5>&-
  wait $!
  same "encap 2" "$(state)"
}

test_an_absent_module_is_reported_or_loaded() {
  rmmod tavik_wlan
  autoload /bin/false
  refused "the kernel has no family TAVIK_WLAN" datapathctl --log-file log encap set 4500
  same "corvil_datapath_proxy_genlmsg_init(): Querying GENL for family [TAVIK_WLAN, 1] failed
corvil_datapath_proxy_set_udp_encap_port(): GENL message failure" "$(sed -n 's/.*(ERR)://p' log)"
  autoload /sbin/modprobe
  datapathctl encap set 4500
  same "encap 4500" "$(state)"
}

test_configuring_takes_the_capability_in_the_network_namespace() {
  setpriv=/usr/bin/setpriv # not the shell's own, which knows less
  datapathctl encap set 4500
  for command in "proxy update --new tcp/1" "encap unset 4500" "lowlat flush" reset; do
    # shellcheck disable=SC2086 # the words of a command
    refused "(EPERM)" $setpriv --bounding-set -net_admin datapathctl $command
    # shellcheck disable=SC2086
    refused "(EPERM)" $setpriv --reuid 1000 unshare -U -r datapathctl $command
  done
  same "encap 4500" "$(state)"
  $setpriv --bounding-set -net_admin datapathctl ports
  $setpriv --reuid 1000 unshare -U -r -n datapathctl encap set 1
}

test_network_namespaces_share_nothing() {
  datapathctl proxy update --new tcp/1
  unshare -n sh -ec 'datapathctl state; datapathctl proxy update --new tcp/2; datapathctl reset
    datapathctl proxy update --new tcp/3; datapathctl ports; cat /proc/net/tavik_wlan' >inside
  same "tcp/3
tuple ipv4 tcp 3" "$(cat inside)"
  same "tuple ipv4 tcp 1" "$(state)"
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

# Changes the tuples without a pause until there is a file stop.
churn() {
  until [ -e stop ]; do
    printf 'ipsec add 0x1 ::1\nipsec delete 0x1 ::1\n'
  done | datapathctl batch -
}

# Whether changes interrupted a dump and it was asked for again. In any case a dump to its end has
# every tuple that stayed, once.
asks_again() {
  datapathctl --timeout 60000 --trace ports >out 2>&1 ||
    grep -qx "datapathctl: ports: the dump was interrupted by changes 4 times in a row" out
  awk '/GET_TUPLES/ && /^>/ { dumps++ } { print > "dump" dumps }' out
  grep -o 'ipv4 tcp [0-9]*' dump1 | sed 's/^/tuple /' | cmp stable -
  [ -e dump2 ] && rm dump2
}

test_a_long_dump_stands_changes() {
  many_commands | datapathctl batch -
  seq 1 60000 | sed 's/^/tuple ipv4 tcp /' >stable
  trap 'touch stop' EXIT
  churn &
  eventually asks_again
  grep -v esp /proc/net/tavik_wlan | cmp stable -
  touch stop
  wait $!
  same 60000 "$(datapathctl --timeout 60000 ports | wc -l)"
}

test_the_state_is_whole_whatever_size_it_is_read_in() {
  datapathctl batch - <<'END'
proxy up wlan0 --from wwan0 --to wlan0 tcp/1000-1999
encap set 4500
encap drop 4500
lowlat add ::1 1 ::2 2
END
  {
    seq 1000 1999 | sed 's/^/tuple ipv4 tcp /'
    printf '%s\n' "device 0 wlan0" "forward 0 wwan0 wlan0" "encap 4500 drop" "lowlat ::1 1 ::2 2"
  } >expected
  for size in 1 77 4096 100000; do
    dd bs=$size </proc/net/tavik_wlan 2>/dev/null | cmp expected -
  done
  dd bs=1 skip=15000 </proc/net/tavik_wlan >rest 2>/dev/null
  cmp expected rest 15000
}

test_the_kernel_found_nothing_to_complain_of() {
  ! dmesg | grep -E 'WARNING|BUG|Oops|INFO: |stall|refcount|leak|protection fault|locking'
}

passed=0
failed=0
cases=$(sed -n 's/^\(test_[a-z_]*\)() {$/\1/p' "$0")
for case in $cases; do
  mkdir "$folder/$case"
  cd "$folder/$case"
  autoload /sbin/modprobe
  rmmod fou 2>/dev/null || true
  rmmod tavik_wlan 2>/dev/null || true
  modprobe tavik_wlan
  set +e # or the case would not end at its first failure
  (set -e && "$case") >log 2>&1
  status=$?
  set -e
  if [ $status -eq 0 ]; then
    passed=$((passed + 1))
    echo "ok   ${case#test_}"
  else
    failed=$((failed + 1))
    echo "FAIL ${case#test_}"
    sed 's/^/       /' log
  fi
done
rm -rf "$folder"
echo "$passed passed, $failed failed"
[ $failed -eq 0 ]
