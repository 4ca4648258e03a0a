#!/usr/bin/env bash
# Format and lint of every C++ file, each against the compilation database of a preset of clang's.
. "$(dirname "$0")/common.sh"
install_build_packages
install_packages clang-14 libclang-rt-14-dev clang-format-14 clang-tidy-14
git ls-files '*.h' '*.cpp' | xargs clang-format-14 --dry-run -Werror

lint() {
    local preset="$1"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" --target corvalin_version_stamp_header >/dev/null
    xargs -P "$JOBS" -n 1 clang-tidy-14 -p "build/$preset" --quiet \
        2> >(grep -vE 'warnings? (and .* )?generated|^Suppressed|^Use -header-filter' >&2)
}

git ls-files '*.cpp' ':!tests/fuzz' | lint clang
git ls-files 'tests/fuzz/*.cpp' | lint fuzz
echo "Format and lint: clean"
