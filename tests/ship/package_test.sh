#!/usr/bin/env bash
# Makes the Debian packages, has lintian judge them, builds a program of someone else's with them,
# installs them in a fresh Debian and removes them again. Takes minutes, the network, and root or
# sudo.
set -euo pipefail
cd "$(dirname "$0")/../.."

as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
scratch=$(mktemp -d)
trap '"${as_root[@]}" rm -rf "$scratch"' EXIT

rm -f build/package/*.deb
cmake --workflow --preset package
lintian --allow-root --fail-on error,warning build/package/*.deb
for package in build/package/*.deb; do
  dpkg-deb --extract "$package" "$scratch/files"
done
library=$(echo build/package/libcorvil-datapath-proxy1_*.deb)
version=$(dpkg-deb --field "$library" Version)
[ "$(dpkg-parsechangelog -l cmake/debian/changelog -S Version)" = "$version" ]
# A program that was built with this version may run with a later one.
dpkg-deb --control "$library" "$scratch/control"
diff <(echo "(>= $version)") <(cut -d ' ' -f 4- "$scratch/control/shlibs" | uniq)
LD_LIBRARY_PATH=$(dirname "$(find "$scratch/files" -name libcorvil_datapath_proxy.so.1)") \
  tests/ship/install_test.sh "$scratch/files/usr" cc

# shellcheck source=/dev/null
source /etc/os-release
root=$scratch/root
"${as_root[@]}" debootstrap --variant=minbase "$VERSION_CODENAME" "$root"
"${as_root[@]}" cp build/package/*.deb "$root/var/tmp"
in_root() { "${as_root[@]}" chroot "$root" "$@"; }
in_root sh -c 'apt-get install -y -qq --no-install-recommends /var/tmp/*.deb && rm /var/tmp/*.deb'
diff <(build/package/bin/datapathctl --emulate batch scripts/demo.batch) \
  <(in_root datapathctl --emulate batch - <scripts/demo.batch)

in_root ldconfig -p | grep -q corvil
in_root apt-get purge -y -qq 'libcorvil-datapath-proxy*'
diff /dev/null <(in_root ldconfig -p | grep corvil)
diff /dev/null <(in_root find / -xdev -name '*corvil*' -o -name '*datapathctl*' -o -name 'tavik*')
echo "the Debian packages install, run and leave nothing behind"
