#!/usr/bin/env bash
# A Debian package of the release preset's build, in build/package.
. "$(dirname "$0")/common.sh"
install_build_packages
install_package_packages
build release
exec packaging/make_package.sh build/release build/package
