#!/usr/bin/env bash
# Installs the Debian packages that QVCore builds, tests and runs with.
# Idempotent: packages already present are left alone and nothing is fetched.
set -euo pipefail

packages=(
  build-essential cmake pkg-config clang-format
  clang libclang-rt-14-dev
  zlib1g-dev nlohmann-json3-dev libplist-dev libcurl4-openssl-dev
  libasio-dev libssl-dev openssl uuid-dev libicu-dev
  libavahi-client-dev avahi-daemon avahi-utils dbus
  libcpp-httplib-dev libsqlite3-dev
  chromium
  libgtest-dev libgmock-dev libbenchmark-dev
  iproute2
  libglib2.0-dev
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done

if ((${#missing[@]} == 0)); then
  echo "install-deps: all packages present"
  exit 0
fi

if [[ $(id -u) -ne 0 ]]; then
  echo "install-deps: missing packages: ${missing[*]}" >&2
  echo "install-deps: run this script as root (or with sudo) to install them" >&2
  exit 1
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
# Do not start daemons (avahi, dbus) on install; tests start their own.
if [[ ! -e /usr/sbin/policy-rc.d ]]; then
  printf '#!/bin/sh\nexit 101\n' >/usr/sbin/policy-rc.d
  chmod +x /usr/sbin/policy-rc.d
  trap 'rm -f /usr/sbin/policy-rc.d' EXIT
fi
apt-get install -y -qq --no-install-recommends "${missing[@]}"
echo "install-deps: done"
