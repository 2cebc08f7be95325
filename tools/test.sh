#!/usr/bin/env bash
# Builds and runs every test suite.
#   tools/test.sh [native|clang|asan|tsan|arm64] [ctest arguments...]
#     native  the plain build (default)
#     clang   clang 19 with libc++, as the Android NDK builds
#     asan    AddressSanitizer + UndefinedBehaviorSanitizer
#     tsan    ThreadSanitizer
#     arm64   cross-compiled for aarch64, run under qemu-user
# A sanitizer report fails the test that produced it.
set -euo pipefail
cd "$(dirname "$0")/.."

kind="${1:-native}"
[ $# -gt 0 ] && shift
options=(-G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNETCORE_WERROR=ON)
deps=()
case "$kind" in
  native) ;;
  clang) options+=(-DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/clang-libcxx.cmake); deps+=(--clang) ;;
  asan) options+=(-DNETCORE_SANITIZE_ADDRESS=ON) ;;
  tsan) options+=(-DNETCORE_SANITIZE_THREAD=ON) ;;
  arm64) options+=(-DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake); deps+=(--cross) ;;
  *) echo "unknown build: $kind" >&2; exit 2 ;;
esac
bash tools/install-deps.sh "${deps[@]}"

dir="build-$kind"
[ "$kind" = native ] && dir=build
cmake -S . -B "$dir" "${options[@]}"
cmake --build "$dir" -j"$(nproc)"

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:strict_string_checks=1:detect_stack_use_after_return=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
jobs="$(nproc)"
[ "$kind" = native ] && jobs=$((jobs * 2))
runner=()
# ThreadSanitizer's memory layout needs the address space without high-entropy randomisation
[ "$kind" = tsan ] && runner=(setarch "$(uname -m)" -R)
"${runner[@]}" ctest --test-dir "$dir" --output-on-failure -j"$jobs" "$@"
