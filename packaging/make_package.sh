#!/usr/bin/env bash
# make_package.sh BUILD_DIR OUTPUT_DIR: packs a built tree as a Debian package and checks it with lintian.
set -euo pipefail

source_dir="$(cd "$(dirname "$0")/.." && pwd)"
build_dir="$(cd "$1" && pwd)"
mkdir -p "$2"
rm -f "$2"/*.deb "$2"/*.changes "$2"/*.buildinfo
output_dir="$(cd "$2" && pwd)"

# debhelper wants its folder at the root of a tree and fills it with what it makes; so it works on a copy.
work_dir="$output_dir/work"
rm -rf "$work_dir"
mkdir -p "$work_dir/tree"
cp -r "$source_dir/packaging/debian" "$work_dir/tree/debian"

cd "$work_dir/tree"
export BUILD_DIR="$build_dir" SOURCE_DIR="$source_dir"
# Dependencies are the Makefile's business here: a tool may well be there without its package.
dpkg-buildpackage --build=binary --no-check-builddeps --no-sign --no-pre-clean >"$output_dir/build.log" 2>&1 || {
    cat "$output_dir/build.log" >&2
    exit 1
}
mv "$work_dir"/*.deb "$work_dir"/*.changes "$work_dir"/*.buildinfo "$output_dir"
rm -rf "$work_dir"

cd "$output_dir"
lintian --allow-root --fail-on error,warning ./*.changes
for package in corvalin-router_*.deb; do
    echo "Package: $output_dir/$package"
done
