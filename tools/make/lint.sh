#!/usr/bin/env bash
# Format and lint of every C++ file, against the compilation database of the release preset.
. "$(dirname "$0")/common.sh"
install_build_packages
install_packages clang-format-14 clang-tidy-14
git ls-files '*.h' '*.cpp' | xargs clang-format-14 --dry-run -Werror
cmake --preset release
cmake --build --preset release --target corvalin_version_stamp_header
git ls-files '*.cpp' ':!tests/fuzz' | xargs -P "$JOBS" -n 1 clang-tidy-14 -p build/release --quiet \
    --extra-arg=-Wno-unknown-warning-option 2>/dev/null
echo "Format and lint: clean"
