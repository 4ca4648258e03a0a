#!/usr/bin/env bash
# Runs all benchmarks of a release build and prints their table: bench/run.sh [BUILD_DIR] [OPTIONS of run.py]
# ROUNDS (5), ROUND_SECONDS (2) and PATIENCE (2) in the environment say how long it takes: with these about 8
# minutes on two processors that have nothing else to do.
set -euo pipefail
export PYTHONDONTWRITEBYTECODE=1 # leave nothing in the source folder
exec python3 "$(dirname "$0")/run.py" "${1:-build/release}" "${@:2}"
