#!/usr/bin/env bash
# Has Soong, a device's build, read Android.bp: what it does not understand or find fails. Debian's
# soong_build lacks the C++ modules, so one that has them is built from Debian's source of Soong.
set -euo pipefail
cd "$(dirname "$0")/../.."

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
source=/usr/share/gocode/src/android/soong/cmd/soong_build
main=$scratch/src/soong_build
out=$scratch/out
mkdir -p "$main" "$out"
cp $source/*.go "$main"
printf 'package main\n\nimport _ "android/soong/cc"\n' >"$main/cc.go"
GO111MODULE=off GOPATH=$scratch:/usr/share/gocode CGO_ENABLED=0 \
  go build -o "$out/soong_build" soong_build

bpfmt -d Android.bp | tee "$scratch/diff"
[ ! -s "$scratch/diff" ]

# The rest of a device's tree is not there.
echo '{}' >"$out/soong.config"
cat >"$out/soong.variables" <<'END'
{ "Allow_missing_dependencies": true, "HostArch": "x86_64", "DeviceName": "generic",
  "DeviceArch": "arm64", "DeviceArchVariant": "armv8-a", "DeviceAbi": ["arm64-v8a"],
  "DeviceSecondaryArch": "arm", "DeviceSecondaryArchVariant": "armv7-a-neon",
  "DeviceSecondaryAbi": ["armeabi-v7a"], "Platform_sdk_version": 30 }
END
echo Android.bp >"$out/list"
"$out/soong_build" -b "$out" -n "$out" -l "$out/list" -o "$out/build.ninja" -d "$out/depends" \
  -globFile "$out/globs.ninja" Android.bp
for module in libcorvil_datapath_proxy{,_headers,_test}; do
  grep -A 1 "^# Module:  $module\$" "$out/build.ninja" | sed -n 's/^# Variant: //p' |
    sed "s/^/$module for /"
done
