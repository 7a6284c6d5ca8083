#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the benchmarks need,
# only those that are missing.
set -euo pipefail
packages=(cmake ninja-build g++ pkg-config libsqlite3-dev libssl-dev uuid-dev
          libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev clang libclang-rt-14-dev
          libkeyutils-dev  # the PIN store benchmark only
          libp11-kit-dev p11-kit p11-kit-modules softhsm2 opensc  # the PKCS#11 module, its agent and their tests
          dpkg-dev file)  # the Debian package: cpack -G DEB and its checks
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
fi
