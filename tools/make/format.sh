#!/usr/bin/env bash
# Brings every C++ file into the project's layout.
. "$(dirname "$0")/common.sh"
install_packages clang-format-14 git
git ls-files --cached --others --exclude-standard '*.h' '*.cpp' | xargs clang-format-14 -i
