#!/usr/bin/env bash
# Holds kernel_interface/tavik_wlan.yaml against the kernel's own tools: the schema of its language,
# by the code generator, and in the VM of scripts/vm.sh the generic client, which drives the module
# and knows of the family only what it says. The tools are those of Debian's kernel sources,
# unpacked to build/ynl alone.
set -euo pipefail
cd "$(dirname "$0")/../.."

package=linux-source-6.12
build=$PWD/build/ynl
tools=$build/$package/tools/net/ynl
specs=$build/$package/Documentation/netlink/specs

skip() {
  echo "skipped: $1"
  exit 77
}

if ! [ -e "$build/fetched" ]; then
  apt-cache show $package >/dev/null 2>&1 || skip "Debian offers no $package here"
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

obstacle=$(scripts/vm.sh --check 2>&1 >/dev/null) || skip "$obstacle"
export EXTRA=$build/root # the client, and a Python for it
python=$(readlink -f /usr/bin/python3)
version=$(basename "$python")
rm -rf "$EXTRA"
mkdir -p "$EXTRA/ynl"
cp -r "$tools"/{cli.py,lib} kernel_interface/tavik_wlan.yaml "$EXTRA/ynl"
{
  echo "$python"
  ldd "$python" | sed -nE 's|^[^/]*(/[^ ]+) \(0x.*|\1|p'
  dpkg --listfiles "lib$version-minimal" "lib$version-stdlib" python3-yaml
} | while read -r file; do
  ! [ -f "$file" ] || cp --parents --dereference "$file" "$EXTRA"
done

diff - <(scripts/vm.sh "
  ynl() {
    $python /ynl/cli.py --spec /ynl/tavik_wlan.yaml --no-schema --output-json \"\$@\" |
      sed '/^null/d; s/ *\({.tuple-attr\)/\n\1/g'
  }
  datapathctl ipsec add 0x12345678 ::1
  ynl --do add-tuples --json '{\"tuples\": {\"tuple-element\": [
    {\"tuple-attr\": {\"port\": 443, \"ip-proto\": 4, \"trans-proto\": 6}}]}}'
  ynl --do set-dev --json '{\"selector\": 7, \"dev\": \"wlan0\"}'
  cat /proc/net/tavik_wlan
  ynl --dump get-tuples") <<'EXPECTED'
tuple ipv4 tcp 443
tuple ipv6 esp 0x12345678
device 7 wlan0
[{"tuples": {"tuple-element": [
{"tuple-attr": {"port": 443, "spi-low": 0, "ip-proto": "ipv4", "trans-proto": "tcp", "reserved": 0}},
{"tuple-attr": {"port": 4660, "spi-low": 22136, "ip-proto": "ipv6", "trans-proto": "esp", "reserved": 0}}]}}]
EXPECTED
