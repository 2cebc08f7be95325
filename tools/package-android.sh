#!/usr/bin/env bash
# Packs an Android build of the library and its two companions as an AAR with Prefab metadata, so
# that an app's Gradle build consumes it with find_package(OmbreltNetCore CONFIG).
#   tools/package-android.sh [--layout-only] <android build dir> [output dir]
# The ABI, API level and STL come from the build's CMake cache, the NDK's major version from the
# NDK the build used (its toolchain file, or ANDROID_NDK_HOME / ANDROID_NDK). The build must use
# the shared C++ runtime (-DANDROID_STL=c++_shared): an app may load only one.
# --layout-only packs a build that is not an Android one with the Android target's values
# (arm64-v8a, API 30, NDK 28, c++_shared): the package is then only good for checking its layout.
# Writes <output dir>/OmbreltNetCore-<version>.aar (output dir: the build dir).
set -euo pipefail

layoutOnly=0
if [ "${1:-}" = --layout-only ]; then
  layoutOnly=1
  shift
fi
[ $# -ge 1 ] || { echo "usage: $0 [--layout-only] <android build dir> [output dir]" >&2; exit 2; }
build="$(cd "$1" && pwd)"
out="$(mkdir -p "${2:-$1}" && cd "${2:-$1}" && pwd)"
cd "$(dirname "$0")/.."

cached() {  # the value of a CMake cache entry of the build, empty when it is not set
  sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt" | head -n 1
}

if [ "$layoutOnly" = 1 ]; then
  abi=arm64-v8a api=30 ndk=28 stl=c++_shared
else
  abi="$(cached ANDROID_ABI)"
  [ -n "$abi" ] || { echo "$build is not an Android build (no ANDROID_ABI in its cache)" >&2; exit 1; }
  platform="$(cached ANDROID_PLATFORM)"
  api="${platform#android-}"
  stl="$(cached ANDROID_STL)"
  stl="${stl:-c++_static}"
  if [ "$stl" != c++_shared ]; then
    echo "the build uses $stl: configure it with -DANDROID_STL=c++_shared" >&2
    exit 1
  fi
  # libc++'s timed waits import pthread_cond_clockwait, which bionic has from API 30 on
  if ! [ "$api" -ge 30 ] 2>/dev/null; then
    echo "the build targets API level '$api': the library needs 30 or later (-DANDROID_PLATFORM=android-30)" >&2
    exit 1
  fi
  ndkRoot=""
  toolchain="$(cached CMAKE_TOOLCHAIN_FILE)"
  [ -n "$toolchain" ] && ndkRoot="$(dirname "$(dirname "$(dirname "$toolchain")")")"
  [ -f "$ndkRoot/source.properties" ] || ndkRoot="${ANDROID_NDK_HOME:-${ANDROID_NDK:-}}"
  [ -f "$ndkRoot/source.properties" ] || { echo "cannot find the NDK the build used" >&2; exit 1; }
  ndk="$(sed -n 's/^Pkg.Revision *= *\([0-9]*\).*/\1/p' "$ndkRoot/source.properties")"
fi

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" > /dev/null
version="$(sed -n 's/^set(PACKAGE_VERSION "\(.*\)")$/\1/p' \
  "$(find "$work/prefix" -name OmbreltNetCoreConfigVersion.cmake | head -n 1)")"

aar="$work/aar"
mkdir -p "$aar/prefab/modules" "$aar/jni/$abi"
cat > "$aar/AndroidManifest.xml" <<XML
<?xml version="1.0" encoding="utf-8"?>
<manifest xmlns:android="http://schemas.android.com/apk/res/android" package="ombrelt.netcore">
    <uses-sdk android:minSdkVersion="$api" />
</manifest>
XML
cat > "$aar/prefab/prefab.json" <<JSON
{
  "schema_version": 2,
  "name": "OmbreltNetCore",
  "version": "$version",
  "dependencies": []
}
JSON

# module <name> <library file stem> <header> <exported modules as a JSON list>
module() {
  local dir="$aar/prefab/modules/$1" library="$work/prefix/lib/$2.so"
  [ -f "$library" ] || library="$(find "$work/prefix" -name "$2.so" | head -n 1)"
  [ -f "$library" ] || { echo "$2.so is not in the build's install" >&2; exit 1; }
  mkdir -p "$dir/include" "$dir/libs/android.$abi"
  cp "$work/prefix/include/$3" "$dir/include/"
  cp "$library" "$dir/libs/android.$abi/"
  # the copy under jni/ is the one the app packages and loads
  cp "$library" "$aar/jni/$abi/"
  cat > "$dir/module.json" <<JSON
{
  "export_libraries": $4,
  "library_name": "$2"
}
JSON
  cat > "$dir/libs/android.$abi/abi.json" <<JSON
{
  "abi": "$abi",
  "api": $api,
  "ndk": $ndk,
  "stl": "$stl",
  "static": false
}
JSON
}
# The library's header hands out lists that the BaseLib companion frees, and the library needs
# ManagePool at load time: linking it links both, so a consumer's linker finds every library it
# depends on.
module NetCore libOmbrelt_NetCore Ombrelt_NetCore.h '[":BaseLib", ":ManagePool"]'
module BaseLib libOmbrelt_BaseLib Ombrelt_BaseLib.h '[]'
module ManagePool libOmbrelt_ManagePool Ombrelt_ManagePool.h '[]'

package="$out/OmbreltNetCore-$version.aar"
rm -f "$package"
(cd "$aar" && cmake -E tar cf "$package" --format=zip AndroidManifest.xml prefab jni)
echo "$package"
