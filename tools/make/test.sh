#!/usr/bin/env bash
# Every test: unit and system tests in the release preset, fuzz targets and their corpus in the fuzz preset.
. "$(dirname "$0")/common.sh"
install_build_packages
install_package_packages
install_packages clang-14 libclang-rt-14-dev
build release
build fuzz
run_tests release
run_tests fuzz
