#!/usr/bin/env bash
# Installs the Debian packages the project needs, and only those that are missing.
set -euo pipefail

packages=(
  g++ make cmake pkg-config openssl
  libjsoncpp-dev libcurl4-openssl-dev libssl-dev libcpp-httplib-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  clang clang-format libclang-rt-14-dev llvm-14
  curl python3
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev gstreamer1.0-tools
  gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad
  iputils-ping
)
# The console's browser test needs a browser and its driver; only the tests do.
# bench/footprint.sh sizes the library (binutils), follows the heap (heaptrack)
# and the peak resident set (time).
for option in "$@"; do
  case $option in
    --tests) packages+=(chromium chromium-driver python3-selenium) ;;
    --bench) packages+=(binutils heaptrack time) ;;
    *)
      echo "usage: setup.sh [--tests] [--bench]" >&2
      exit 2
      ;;
  esac
done

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "setup: missing packages: ${missing[*]}" >&2
  echo "setup: run this again as root (or install them with apt-get) to continue" >&2
  exit 1
fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
