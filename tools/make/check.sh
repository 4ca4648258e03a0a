#!/usr/bin/env bash
# What a review wants to be green.
. "$(dirname "$0")/common.sh"
tools/make/lint.sh
install_build_packages
for preset in debug asan tsan; do
    build "$preset"
    run_tests "$preset"
done
