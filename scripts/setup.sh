#!/usr/bin/env bash
# Installs every Debian package the project needs. Idempotent; silent when all are present.
set -euo pipefail

packages=(
    build-essential g++ cmake ninja-build pkg-config git
    libcurl4-openssl-dev nlohmann-json3-dev gettext
    googletest libgtest-dev libgmock-dev
    libbenchmark-dev libboost1.81-dev libboost-thread1.81-dev libasio-dev
    libcpp-httplib-dev locales
    clang-16 libclang-rt-16-dev
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
    sudo=sudo
else
    sudo=
fi
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
