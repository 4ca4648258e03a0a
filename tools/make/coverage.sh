#!/usr/bin/env bash
# Line coverage of corvalin_lib and router by all tests. Fails below 95 %.
. "$(dirname "$0")/common.sh"
install_build_packages
install_packages gcovr
build coverage
find build/coverage -name '*.gcda' -delete
run_tests coverage
mkdir -p build/coverage/report
gcovr --root . --object-directory build/coverage --filter 'corvalin_lib/' --filter 'router/' \
    --exclude-throw-branches --html-details build/coverage/report/index.html --txt build/coverage/report/lines.txt \
    --print-summary --fail-under-line 95
cat build/coverage/report/lines.txt
