#!/usr/bin/env bash
# Format of every C++ file; lint of what is shipped and of what tests and benchmarks share, against the compilation
# database of clang's preset.
. "$(dirname "$0")/common.sh"
install_build_packages
install_packages clang-14 clang-format-14 clang-tidy-14
git ls-files '*.h' '*.cpp' | xargs clang-format-14 --dry-run -Werror

lint() {
    local preset="$1"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" --target corvalin_version_stamp_header >/dev/null
    xargs -P "$JOBS" -n 1 clang-tidy-14 -p "build/$preset" --quiet \
        2> >(grep -vE 'warnings? (and .* )?generated|^Suppressed|^Use -header-filter' >&2)
}

git ls-files 'corvalin_lib/*.cpp' 'router/*.cpp' 'bench/*.cpp' 'tests/faults/*.cpp' 'tests/support/*.cpp' 'tools/*.cpp' |
    lint clang
echo "Format and lint: clean"
