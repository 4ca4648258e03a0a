#!/usr/bin/env bash
# The router's main job on real packets, with node lists over Kafka. Everything happens in namespaces and in the build
# folder.
. "$(dirname "$0")/common.sh"
install_build_packages
cmake --preset release
cmake --build --preset release -j "$JOBS" \
    --target corvalin_router corvalin_media_sender corvalin_media_node corvalin_private_run corvalin_embedded_broker \
    corvalin_config_manager
exec python3 tools/demo/demo.py build/release
