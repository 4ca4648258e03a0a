#!/usr/bin/env bash
# The router's main job on real packets. Everything happens in namespaces and in the build folder.
. "$(dirname "$0")/common.sh"
install_build_packages
cmake --preset release
cmake --build --preset release -j "$JOBS" \
    --target corvalin_router corvalin_media_sender corvalin_media_node corvalin_private_run corvalin_embedded_broker
exec python3 tools/demo/demo.py build/release
