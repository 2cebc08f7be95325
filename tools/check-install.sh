#!/usr/bin/env bash
# Installs an existing build into a temporary prefix and builds a small consumer against it twice:
# with find_package(OmbreltNetCore) and with pkg-config. Usage: tools/check-install.sh [build-dir]
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build}"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" > /dev/null
mkdir -p "$work/consumer"
cat > "$work/consumer/main.cpp" <<'CPP'
#include "Ombrelt_BaseLib.h"
#include "Ombrelt_NetCore.h"
int main() {
    int hSocket = -1;
    bool bOk = NetCore_Socket_Create(&hSocket, true, 2, false) && NetCore_Socket_Close(hSocket);
    return bOk && BaseLib_OperatorTime_GetTickCount64() > 0 ? 0 : 1;
}
CPP
cat > "$work/consumer/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.18)
project(consumer CXX)
find_package(OmbreltNetCore REQUIRED)
add_executable(consumer main.cpp)
target_link_libraries(consumer PRIVATE Ombrelt::NetCore)
CMAKE
cmake -S "$work/consumer" -B "$work/consumer/build" -DCMAKE_PREFIX_PATH="$work/prefix" > /dev/null
cmake --build "$work/consumer/build" > /dev/null
"$work/consumer/build/consumer"
echo "find_package consumer: ok"

export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig"
# shellcheck disable=SC2046
g++ "$work/consumer/main.cpp" $(pkg-config --cflags --libs Ombrelt_NetCore) -o "$work/pc-consumer"
LD_LIBRARY_PATH="$work/prefix/lib" "$work/pc-consumer"
echo "pkg-config consumer: ok"
