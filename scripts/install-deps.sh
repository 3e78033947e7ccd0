#!/usr/bin/env bash
# Installs the Debian packages the project builds and tests with. As root it runs
# apt-get (one update, then install); otherwise it prints the command and fails.
set -euo pipefail

packages=(
  build-essential cmake pkg-config clang-format
  libjsoncpp-dev libtinyxml-dev libssl-dev node-llhttp libboost1.81-dev libspandsp-dev
  googletest libgtest-dev libgmock-dev
  curl wget nginx-light python3 python3-requests sox  # python3-requests: the end-to-end tests show it still logs in
  openssl              # the console test makes a certificate for its TLS listener
  libnginx-mod-stream  # nginx's stream module: the group recipe carries talks' audio ports through it
  logrotate            # checks the shipped log rotation file
  dpkg-dev             # dpkg-shlibdeps: make package computes the package's library dependencies
  prometheus  # for promtool, which the end-to-end tests run over the gateway's /metrics
  systemd     # for systemd-analyze, which checks the service unit in tools/
  # The console's browser tests: headless Chromium driven by Selenium, a spoken voice for its fake
  # microphone, and numpy to compare what the device kept with it.
  chromium chromium-driver python3-selenium espeak-ng python3-numpy
)
if [ "${HPW_EXTRA_PACKAGES:-}" != "" ]; then
  read -r -a extra <<<"$HPW_EXTRA_PACKAGES"
  packages+=("${extra[@]}")
fi

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

command="apt-get update && apt-get install -y --no-install-recommends ${missing[*]}"
if [ "$(id -u)" -ne 0 ]; then
  echo "Missing packages: ${missing[*]}" >&2
  echo "Install them as root with:" >&2
  echo "  $command" >&2
  exit 1
fi
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
