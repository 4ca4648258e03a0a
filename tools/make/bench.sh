#!/usr/bin/env bash
# The figures of docs/performance.md: ratios, both sides interleaved in one run.
. "$(dirname "$0")/common.sh"
install_build_packages
install_packages nginx-light libnginx-mod-stream
build release
exec bench/run.sh build/release
