#!/usr/bin/env bash
# Installs everything needed to build, run and test the daemon on Debian 12.
# Idempotent: when every package and the locale are present it does nothing and says nothing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build ccache pkg-config git
  libboost-dev libboost-system-dev libboost-thread-dev libboost-filesystem-dev
  libssl-dev openssl libcurl4-openssl-dev libxml2-dev libminizip-dev zlib1g-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev
  locales clang libclang-rt-14-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

if [ "${#missing[@]}" -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# Non-ASCII case mapping and conversion need the de_DE.UTF-8 locale.
if ! locale -a 2>/dev/null | grep -qi '^de_DE\.utf-\?8$'; then
  echo "setup: generating locale de_DE.UTF-8"
  if ! grep -q '^de_DE.UTF-8 UTF-8' /etc/locale.gen 2>/dev/null; then
    echo 'de_DE.UTF-8 UTF-8' | $SUDO tee -a /etc/locale.gen >/dev/null
  fi
  $SUDO locale-gen >/dev/null
fi
