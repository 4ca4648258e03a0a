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
        libgtest-dev libgmock-dev libbenchmark-dev python3 iproute2 scdoc
}

# install_package_packages: what packs, checks and tries the Debian package.
install_package_packages() {
    install_packages bash-completion debhelper dpkg-dev fakeroot file lintian mandoc rsyslog scdoc systemd tshark
}

# install_kafka_packages: what the tests against Apache Kafka need, and a Kafka client of another making. Java and Maven
# may well be here without a package.
install_kafka_packages() {
    command -v java >/dev/null || install_packages openjdk-17-jre-headless
    command -v mvn >/dev/null || install_packages maven
    install_packages python3-kafka
}

# prepare_kafka: fetches the broker before the tests start, so that none of them waits for a download. Without a registry
# the tests that need it are skipped, but not in CI, where nobody would notice.
prepare_kafka() {
    local status=0
    install_kafka_packages
    tests/kafka/kafka_broker.py --prepare || status=$?
    if [ "$status" -eq 77 ] && [ "${CI:-}" != true ]; then
        echo "The tests against Apache Kafka will be skipped, for the reason above."
        return 0
    fi
    return "$status"
}

# build <preset>: configures and builds.
build() {
    cmake --preset "$1"
    cmake --build --preset "$1" -j "$JOBS"
}

# install_test_packages: commands that tests run: promtool, which judges the metrics, and nft for the sample firewall.
install_test_packages() {
    command -v promtool >/dev/null || install_packages prometheus
    install_packages nftables
}

# run_tests <preset>: tests wait more than they work, so more of them run at once than there are processors; fewer of them
# where they work more.
run_tests() {
    local at_once=$((JOBS * 4))
    if [ "$1" = release ]; then
        at_once=$((JOBS * 6))
    fi
    install_test_packages
    if [ "$1" != fuzz ]; then
        prepare_kafka
    fi
    ctest --preset "$1" -j "$at_once"
}
