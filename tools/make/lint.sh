#!/usr/bin/env bash
# Format of every C++ file; lint of what is shipped and of what tests and benchmarks share, against a compilation
# database of its own: that of clang's preset, but without precompiled headers, which would have to be built first.
. "$(dirname "$0")/common.sh"
install_build_packages
install_packages clang-14 clang-format-14 clang-tidy-14
git ls-files '*.h' '*.cpp' | xargs clang-format-14 --dry-run -Werror

cmake --preset lint >/dev/null
cmake --build --preset lint --target corvalin_version_stamp_header >/dev/null
git ls-files 'corvalin_lib/*.cpp' 'router/*.cpp' 'bench/*.cpp' 'tests/faults/*.cpp' 'tests/support/*.cpp' 'tools/*.cpp' |
    xargs -P "$JOBS" -n 1 clang-tidy-14 -p build/lint --quiet \
        2> >(grep -vE 'warnings? (and .* )?generated|^Suppressed|^Use -header-filter' >&2)
echo "Format and lint: clean"
