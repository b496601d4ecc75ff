#!/usr/bin/env bash
# Makes the Debian packages, builds a program of someone else's with them and installs them in a
# fresh Debian. Takes minutes, the network, and root or sudo.
set -euo pipefail
cd "$(dirname "$0")/.."

as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
scratch=$(mktemp -d)
trap '"${as_root[@]}" rm -rf "$scratch"' EXIT

# Runs a command, whose output only matters when it fails.
quietly() {
  "$@" >"$scratch/log" 2>&1 || {
    cat "$scratch/log" >&2
    return 1
  }
}

rm -f build/package/*.deb
quietly cmake --workflow --preset package
for package in build/package/*.deb; do
  dpkg-deb --extract "$package" "$scratch/files"
done
LD_LIBRARY_PATH=$(dirname "$(find "$scratch/files" -name libcorvil_datapath_proxy.so.1)") \
  tests/install_test.sh "$scratch/files/usr" cc

# shellcheck source=/dev/null
source /etc/os-release
root=$scratch/root
quietly "${as_root[@]}" debootstrap --variant=minbase "$VERSION_CODENAME" "$root"
"${as_root[@]}" cp build/package/{datapathctl,libcorvil-datapath-proxy1}_*.deb "$root/var/tmp"
quietly "${as_root[@]}" chroot "$root" sh -c \
  'apt-get install -y -qq --no-install-recommends /var/tmp/*.deb'
here=$(build/package/bin/datapathctl --emulate batch scripts/demo.batch)
there=$("${as_root[@]}" chroot "$root" datapathctl --emulate batch - <scripts/demo.batch)
diff <(echo "$here") <(echo "$there")
echo "the Debian packages install and run"
