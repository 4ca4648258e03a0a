# common.sh: what the doors of the Makefile share. Sourced, with the working directory anywhere.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/../.."
JOBS="${JOBS:-$(nproc)}"

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo "$@"
    fi
}

# install_packages <name>...: installs those that are missing, and asks no questions.
install_packages() {
    local missing=() name
    for name in "$@"; do
        if ! dpkg-query --show --showformat='${db:Status-Status}' "$name" 2>/dev/null | grep -qx installed; then
            missing+=("$name")
        fi
    done
    if [ "${#missing[@]}" -eq 0 ]; then
        return
    fi
    echo "Installing: ${missing[*]}"
    as_root apt-get update -qq
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

install_build_packages() {
    install_packages g++ cmake ninja-build pkg-config git librdkafka-dev rapidjson-dev zlib1g-dev libcli11-dev \
        libgtest-dev libgmock-dev libbenchmark-dev python3 iproute2
}

# build <preset>: configures and builds.
build() {
    cmake --preset "$1"
    cmake --build --preset "$1" -j "$JOBS"
}

# run_tests <preset>: tests wait more than they work, so more of them run at once than there are processors.
run_tests() {
    ctest --preset "$1" -j "$((JOBS * 2))"
}
