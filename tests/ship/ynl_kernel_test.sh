#!/usr/bin/env bash
# Holds kernel_interface/tavik_wlan.yaml against the kernel's own tools: the schema of its language,
# by the code generator, and in the VM of scripts/vm.sh the generic client, which knows of the family
# only what it says and drives the module by each command. The tools are those of Debian's kernel
# sources, unpacked to build/ynl alone.
set -euo pipefail
cd "$(dirname "$0")/../.."

package=linux-source-6.12
build=$PWD/build/ynl
tools=$build/$package/tools/net/ynl
specs=$build/$package/Documentation/netlink/specs

if ! [ -e "$build/fetched" ]; then
  rm -rf "$build"
  mkdir -p "$build"
  (cd "$build" && apt-get -qq -o APT::Sandbox::User=root download $package)
  dpkg-deb --fsys-tarfile "$build"/*.deb | tar --extract --to-stdout ./usr/src/$package.tar.xz |
    tar --extract --xz --directory "$build" $package/tools/net/ynl $package/Documentation/netlink
  rm "$build"/*.deb
  touch "$build/$package/MAINTAINERS" # or the generator looks for the sources' root forever
  touch "$build/fetched"
fi

cp kernel_interface/tavik_wlan.yaml "$specs"
/usr/bin/python3 "$tools/ynl-gen-c.py" --mode user --spec "$specs/tavik_wlan.yaml" --header \
  -o "$build/tavik_wlan-user.h" # after a validation

export EXTRA=$build/root # the client, and a Python for it
python=$(readlink -f /usr/bin/python3)
version=$(basename "$python")
rm -rf "$EXTRA"
mkdir -p "$EXTRA/ynl"
cp -r "$tools/lib" kernel_interface/tavik_wlan.yaml "$EXTRA/ynl"
{
  echo "$python"
  ldd "$python" | sed -nE 's|^[^/]*(/[^ ]+) \(0x.*|\1|p'
  dpkg --listfiles "lib$version-minimal" "lib$version-stdlib" python3-yaml
} | while read -r file; do
  ! [ -f "$file" ] || cp --parents --dereference "$file" "$EXTRA"
done

cat >"$EXTRA/ynl/drive.py" <<'END'
import copy
import pathlib
from lib import YnlFamily

family = YnlFamily("/ynl/tavik_wlan.yaml", "")
tcp = {"tuple-attr": {"port": 443, "ip-proto": 4, "trans-proto": 6}}
esp = {"tuple-attr": {"port": 0x1234, "spi-low": 0x5678, "ip-proto": 6, "trans-proto": 50}}
tuples = {"tuples": {"tuple-element": [tcp, esp]}}
device = {"selector": 7, "dev": "wlan0"}
forwarding = {"selector": 7, "fwd-from": "wwan0", "fwd-to": "wlan0"}
port = {"encap-port": 4500}
flow = {"ll-src-addr": "::1", "ll-dst-addr": "::2", "ll-src-port": 1, "ll-dst-port": 2}

def do(command, attributes):
    family.do(command, copy.deepcopy(attributes))  # It takes apart what it is given.
    print(command, *pathlib.Path("/proc/net/tavik_wlan").read_text().splitlines(), sep="; ")


do("add-tuples", tuples)
for element in family.dump("get-tuples", {})[0]["tuples"]["tuple-element"]:
    print(list(element["tuple-attr"].values()))
do("del-tuples", tuples)
do("set-dev", device)
do("unset-dev", device)
do("add-fwd-info", forwarding)
do("del-fwd-info", forwarding)
do("set-encap-port", port)
do("encap-port-act-pass-through", port)
do("encap-port-act-drop", port)
do("ll-addr-add", flow)
do("ll-addr-flush", {})
do("unset-encap-port", port)
do("add-tuples", tuples)
do("reset", {})
END
diff - <(scripts/vm.sh "$python /ynl/drive.py") <<'END'
add-tuples; tuple ipv4 tcp 443; tuple ipv6 esp 0x12345678
[443, 0, 'ipv4', 'tcp', 0]
[4660, 22136, 'ipv6', 'esp', 0]
del-tuples
set-dev; device 7 wlan0
unset-dev
add-fwd-info; forward 7 wwan0 wlan0
del-fwd-info
set-encap-port; encap 4500
encap-port-act-pass-through; encap 4500 pass-through
encap-port-act-drop; encap 4500 drop
ll-addr-add; encap 4500 drop; lowlat ::1 1 ::2 2
ll-addr-flush; encap 4500 drop
unset-encap-port
add-tuples; tuple ipv4 tcp 443; tuple ipv6 esp 0x12345678
reset
END
