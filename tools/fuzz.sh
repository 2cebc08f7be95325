#!/usr/bin/env bash
# Builds the UDX datagram parser's fuzz target with clang's libFuzzer (plus AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs it for a bounded time over the seed corpus.
#   tools/fuzz.sh [seconds]     default 60
# Inputs the run discovers go to build-fuzz/corpus; the committed seeds are left untouched.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-60}"
bash tools/install-deps.sh --fuzz

out=build-fuzz
mkdir -p "$out/corpus"
clang++ -std=c++17 -g -O1 -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined \
  -Iinclude -Isrc \
  tools/fuzz/udx/UDXParseFuzz.cpp src/udx/UDXEngine.cpp src/udx/UDXPacket.cpp src/frame/Error.cpp \
  -o "$out/udx_parse_fuzz"
cp tools/fuzz/udx/corpus/* "$out/corpus/"
"$out/udx_parse_fuzz" -max_total_time="$seconds" -max_len=4096 -timeout=10 -print_final_stats=1 \
  "$out/corpus"
