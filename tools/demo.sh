#!/usr/bin/env bash
# Builds the library and runs the main demo on loopback.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build --target netcore_demo -j"$(nproc)"
./build/examples/netcore_demo "$@"
