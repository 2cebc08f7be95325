#!/usr/bin/env bash
# Installs what building and testing needs on a fresh Debian machine.
#   tools/install-deps.sh           compiler, CMake, Ninja, GoogleTest and test peers
#   tools/install-deps.sh --cross   also the aarch64 cross compiler and qemu-user
#   tools/install-deps.sh --clang   also clang 19 and libc++ (the compiler and C++ library of the Android NDK)
#   tools/install-deps.sh --bench   also Google Benchmark, libuv, Asio and ENet (references of the echo and UDX benchmarks)
#   tools/install-deps.sh --fuzz    also clang and its libFuzzer runtime
#   tools/install-deps.sh --package also python3 (the check of the Android package reads its metadata)
set -euo pipefail

packages=(cmake ninja-build g++ googletest libgtest-dev pkg-config iproute2 socat)
for arg in "$@"; do
  case "$arg" in
    --cross) packages+=(g++-aarch64-linux-gnu libc6-dev-arm64-cross qemu-user) ;;
    --clang) packages+=(clang-19 libc++-19-dev libc++abi-19-dev) ;;
    --bench) packages+=(libbenchmark-dev libuv1-dev libasio-dev libenet-dev) ;;
    --fuzz) packages+=(clang libclang-rt-dev) ;;
    --package) packages+=(python3) ;;
    *) echo "unknown option: $arg" >&2; exit 2 ;;
  esac
done

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -q
$sudo apt-get install -y -q "${missing[@]}"
