#!/usr/bin/env bash
# Installs the Debian packages that building, running and testing Ostrel need,
# and only those that are missing. Safe to run again; does nothing when all are there.
set -euo pipefail

packages=(
  # build
  build-essential cmake ninja-build pkg-config g++ clang clang-format
  # libraries
  libasio-dev nlohmann-json3-dev libutf8proc-dev libpcre2-dev
  libhowardhinnant-date-dev tzdata libssl-dev libcurl4-openssl-dev libsystemd-dev
  libqrencode-dev libcli11-dev libfmt-dev
  # tests, benchmarks, fuzzing
  libgtest-dev libgmock-dev libbenchmark-dev libclang-rt-14-dev libvterm-dev
  dbus-daemon tmux python3 less ncurses-bin git
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing missing packages: ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
