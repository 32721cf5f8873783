#!/usr/bin/env bash
# Installs the Debian packages that building, testing and the demo need.
# Idempotent: asks apt only for what is missing, and updates its lists at most once.
set -euo pipefail

packages=(
  build-essential cmake pkg-config git
  help2man  # the man page korvel(1)
  libzookeeper-mt-dev zookeeper
  libboost-dev libcli11-dev nlohmann-json3-dev
  libcpp-httplib-dev  # the HTTP servers of the tests and benchmarks
  libgtest-dev libgmock-dev libbenchmark-dev
  libspdlog-dev  # the benchmarks' comparison for the logging facade
  clang clang-format libclang-rt-14-dev  # libFuzzer and the sanitizers' runtimes for clang
  systemd  # systemd-analyze verifies the sidecar's unit file
  chromium chromium-driver python3-selenium  # the dashboard's tests in a headless browser
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep "install ok installed" >/dev/null || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
