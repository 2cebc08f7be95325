#!/usr/bin/env bash
# Packs a host build the way tools/package-android.sh packs an Android one (--layout-only) and
# checks the AAR's layout and Prefab metadata. Usage: tools/check-package-android.sh [build-dir]
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh --package
build="${1:-build}"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

if bash tools/package-android.sh "$build" "$work" > /dev/null 2>&1; then
  echo "a build that is not an Android one was packed as one" >&2
  exit 1
fi
aar="$(bash tools/package-android.sh --layout-only "$build" "$work")"
mkdir "$work/unpacked"
(cd "$work/unpacked" && cmake -E tar xf "$aar")
python3 tools/check_prefab_package.py "$work/unpacked"
