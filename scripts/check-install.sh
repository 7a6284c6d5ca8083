#!/usr/bin/env bash
# Checks the library as a consumer meets it: builds it for prefix /usr,
# installs it into a temporary DESTDIR and builds and runs the example
# (examples/middleware) against that, once through find_package and once
# through pkg-config; then builds the Debian package with cpack, checks its
# contents and dependencies, installs it with apt-get, builds and runs the
# example against the system's copy both ways, and removes the package again
# (unless it was installed before this run). Exits non-zero on any failure.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
bash "$root/scripts/install-deps.sh"
build="$root/build/package"
bash "$root/scripts/build.sh" package -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
  -DMSTORE_TESTS=OFF -DMSTORE_BENCH=OFF >/dev/null
work="$(mktemp -d)"
installed_here=0
cleanup() {
  if [ "$installed_here" = 1 ]; then
    DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq merrowstore >/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "check-install: $*" >&2; exit 1; }
multiarch="$(gcc -print-multiarch)"

# run_example NAME PROGRAM: the example's round, on a registry of its own.
run_example() {
  local output
  output="$(XK_REGISTRY_PATH="$work/$1.db" "$2")" || fail "$1: the example failed: $output"
  echo "$output" | sed "s/^/  [$1] /"
  grep -qx 'PIN-always key: available (123456)' <<<"$output" &&
    grep -qx 'PIN-always key again: prompt' <<<"$output" &&
    grep -qx 'ordinary key: available' <<<"$output" &&
    grep -q '^certificate: 30 82 01 0a \.\.\., content version' <<<"$output" ||
    fail "$1: unexpected output"
}

# build_example NAME PREFIX: through find_package (CMake) and pkg-config (make);
# PREFIX empty means the system's own paths.
build_example() {
  local name="$1" prefix="$2"
  cmake -S "$root/examples/middleware" -B "$work/$name-cmake" -G Ninja ${prefix:+-DCMAKE_PREFIX_PATH="$prefix"} \
    >/dev/null || fail "$name: find_package(Merrowstore) failed"
  ninja -C "$work/$name-cmake" >/dev/null || fail "$name: the CMake build failed"
  run_example "$name-cmake" "$work/$name-cmake/middleware"
  mkdir -p "$work/$name-pc"
  cp "$root/examples/middleware/main.cc" "$root/examples/middleware/Makefile" "$work/$name-pc/"
  PKG_CONFIG_PATH="${prefix:+$prefix/lib/$multiarch/pkgconfig}" make -s -C "$work/$name-pc" >/dev/null ||
    fail "$name: the pkg-config build failed"
  LD_LIBRARY_PATH="${prefix:+$prefix/lib/$multiarch}" run_example "$name-pkg-config" "$work/$name-pc/middleware"
}

echo "=== install into a temporary DESTDIR ==="
DESTDIR="$work/root" cmake --install "$build" >/dev/null
prefix="$work/root/usr"
for path in "lib/$multiarch/libmerrowstore.so.0.1.0" "lib/$multiarch/libmerrowstore.so.0" "lib/$multiarch/libxkwinext.so.0" \
            "lib/$multiarch/merrowstore/libmstoreshell.so" "lib/$multiarch/cmake/Merrowstore/MerrowstoreConfigVersion.cmake" \
            "lib/$multiarch/pkcs11/libmerrowstore-pkcs11.so" \
            "lib/$multiarch/pkgconfig/merrowstore.pc" include/merrowstore/StaticAuthCacheClient.h \
            include/merrowstore/xk/oleauto.h bin/mstore share/doc/merrowstore/README.md; do
  [ -e "$prefix/$path" ] || fail "not installed: $path"
done
[ -z "$(find "$work/root" -name 'libxktest*')" ] || fail "the test support library was installed"
[ "$(readelf -d "$prefix/lib/$multiarch/libmerrowstore.so.0.1.0" | sed -n 's/.*soname: \[\(.*\)\]/\1/p')" = libmerrowstore.so.0 ] ||
  fail "libmerrowstore's SONAME is not libmerrowstore.so.0"
build_example destdir "$prefix"
XK_REGISTRY_PATH="$work/mstore.db" "$prefix/bin/mstore" stores | grep -q AEA79AF9 ||
  fail "the installed mstore does not load the library through its plugin"
module="$("$prefix/bin/mstore" agent --help | sed -n 's/.*--module.*(default: \(.*\))$/\1/p')"
[ -n "$module" ] && [ "$(realpath "$module")" = "$(realpath "$prefix/lib/$multiarch/pkcs11/libmerrowstore-pkcs11.so")" ] ||
  fail "the installed agent does not find the installed PKCS#11 module (it would serve '$module')"
ldd "$prefix/lib/$multiarch/pkcs11/libmerrowstore-pkcs11.so" | grep -q "libmerrowstore.so.0 => $prefix/" ||
  fail "the installed PKCS#11 module does not find the installed store library"

echo "=== Debian package ==="
(cd "$build" && cpack -G DEB >/dev/null)
deb="$(ls "$build"/merrowstore_*.deb)"
dpkg-deb -c "$deb" >"$work/contents"
for path in "./usr/lib/$multiarch/libmerrowstore.so.0.1.0" "./usr/lib/$multiarch/libmerrowstore.so.0 -> " \
            "./usr/lib/$multiarch/cmake/Merrowstore/MerrowstoreConfig.cmake" "./usr/lib/$multiarch/pkgconfig/merrowstore.pc" \
            ./usr/include/merrowstore/StaticDataCacheClient.h ./usr/bin/mstore "./usr/lib/$multiarch/merrowstore/libmstoreshell.so" \
            "./usr/lib/$multiarch/pkcs11/libmerrowstore-pkcs11.so"; do
  grep -qF "$path" "$work/contents" || fail "the package lacks $path"
done
! grep -q libxktest "$work/contents" || fail "the package holds the test support library"
depends="$(dpkg-deb -f "$deb" Depends)"
for dependency in libssl3 libsqlite3-0 libuuid1 libstdc++6 libp11-kit0; do
  grep -q "$dependency" <<<"$depends" || fail "the package does not depend on $dependency ($depends)"
done
echo "  $(basename "$deb"): $(wc -l <"$work/contents") entries; Depends: $depends"

if ! dpkg-query -W -f='${Status}' merrowstore 2>/dev/null | grep -q "install ok installed"; then
  installed_here=1
fi
DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$deb" >/dev/null
build_example system ""
echo "install checks passed"
