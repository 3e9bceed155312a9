#!/usr/bin/env bash
# Installs the built library into a temporary prefix, then builds a small C
# program against that prefix alone, once through pkg-config and once through
# find_package(YAX), and runs both on a file the installed yax tool edited.
# Usage: consumers.sh BUILD_DIR VERSION C_COMPILER CMAKE GENERATOR PKG_CONFIG SAMPLE_JPG
set -euo pipefail
build="$1" version="$2" cc="$3" cmake="$4" generator="$5" pkgconfig="$6" sample="$7"
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
source_root="$(cd "$here/../.." && pwd)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
fail() { echo "consumers: $*" >&2; exit 1; }
prefix="$work/prefix"

"$cmake" --install "$build" --prefix "$prefix" >"$work/install.log" \
  || { cat "$work/install.log"; fail "cmake --install failed"; }

# The library, its versioned names, and nothing installed that points back
# into the source or build tree.
pc="$(find "$prefix" -name yax.pc)"
[ -n "$pc" ] || fail "no yax.pc installed"
libdir="$(dirname "$(dirname "$pc")")"
[ "$(readlink "$libdir/libYAX.so")" = libYAX.so.1 ] || fail "libYAX.so does not point at libYAX.so.1"
[ "$(readlink "$libdir/libYAX.so.1")" = "libYAX.so.$version" ] || fail "libYAX.so.1 does not point at libYAX.so.$version"
readelf -d "$libdir/libYAX.so.$version" | grep -qF 'Library soname: [libYAX.so.1]' \
  || fail "the library's SONAME is not libYAX.so.1"
for h in yax_api.h yax_container.h yax_export.h yax_support.h yax_types.h yax_vono.h; do
  [ -f "$prefix/include/$h" ] || fail "include/$h not installed"
done
if grep -rlF -e "$source_root" -e "$build" "$prefix"/include "$libdir"/cmake "$libdir"/pkgconfig; then
  fail "installed files name the source or build tree"
fi

# A sample with two entries (one with a 1-byte name), made by the installed tool.
cp "$sample" "$work/photo.jpg"
printf 'A quiet morning.\n' > "$work/caption.txt"
"$prefix/bin/yax" put "$work/photo.jpg" caption "$work/caption.txt"
printf 'x' | "$prefix/bin/yax" put "$work/photo.jpg" b -
expected="$(printf 'caption\nb')"

# pkg-config, from the prefix only.
export PKG_CONFIG_LIBDIR="$(dirname "$pc")" PKG_CONFIG_PATH=
"$cc" "$here/consumer.c" -o "$work/app-pc" $("$pkgconfig" --cflags --libs yax) \
  -Wl,-rpath,"$("$pkgconfig" --variable=libdir yax)"

# find_package, from the prefix only: the three lines a consumer writes.
mkdir "$work/app"
cp "$here/consumer.c" "$work/app/"
cat > "$work/app/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.18)
project(app LANGUAGES C)
find_package(YAX 1.0 REQUIRED)
add_executable(app consumer.c)
target_link_libraries(app PRIVATE YAX::YAX)
CMAKE
"$cmake" -S "$work/app" -B "$work/app/build" -G "$generator" -DCMAKE_C_COMPILER="$cc" \
  -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF >"$work/app.log" 2>&1 \
  || { cat "$work/app.log"; fail "find_package(YAX) failed"; }
"$cmake" --build "$work/app/build" >>"$work/app.log" 2>&1 || { cat "$work/app.log"; fail "building the find_package consumer failed"; }

for app in "$work/app-pc" "$work/app/build/app"; do
  readelf -d "$app" | grep -qF 'Shared library: [libYAX.so.1]' || fail "$app does not need libYAX.so.1"
  got="$("$app" "$work/photo.jpg")" || fail "$app failed on the edited sample"
  [ "$got" = "$expected" ] || fail "$app listed '$got', expected '$expected'"
  if "$app" "$sample" >/dev/null 2>&1; then fail "$app found a trailer in the plain sample"; fi
done
echo "consumers: pkg-config and find_package(YAX) consumers built from $prefix and ran"
