#!/usr/bin/env bash
# The installed tree and the Debian packages, used as a person would: `cmake --install` into a
# fresh prefix, then the packages CPack makes unpacked with dpkg -x; in both, the demo runs in a
# JVM and tolvik makes a key database, with nothing found through the build tree.
set -euo pipefail
build=$1 multiarch=$2 java=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset LD_LIBRARY_PATH TOLVIK_DB
fail() { echo "FAIL: $*" >&2; exit 1; }

# uses ROOT: the demo and a tolvik session run from the tree under ROOT.
uses() {
  local root=$1 lib=$1/lib/$multiarch
  [ -f "$lib/libzav7km_gcc295.so" ] && [ -f "$lib/libzavkjni.so" ] || fail "libraries not in $lib"
  readelf -d "$lib/libzavkjni.so" | grep -q 'RUNPATH.*\[\$ORIGIN\]' || fail "bridge RUNPATH is not \$ORIGIN"
  mkdir -p "$work/run" && (cd "$work/run" && rm -rf ./* &&
    "$java" -Xcheck:jni -Djava.library.path="$lib" -cp "$root/share/java/tolvik.jar" \
      com.norvex.zav.tolvik.demo.Main > demo.out 2>&1) || { tail -20 "$work/run/demo.out"; fail "demo from $root"; }
  grep -q "every step worked" "$work/run/demo.out" || fail "demo from $root did not finish"
  [ "$(readlink -f "$(ldd "$root/bin/tolvik" | awk '/libzav7km_gcc295/ {print $3}')")" = "$(readlink -f "$lib/libzav7km_gcc295.so")" ] ||
    fail "tolvik does not find $lib"
  PW=install-test-pw "$root/bin/tolvik" keydb create --db "$work/run/t.kdb" --password-env PW > /dev/null ||
    fail "tolvik from $root"
}

cmake --install "$build" --prefix "$work/prefix" > /dev/null
uses "$work/prefix"
[ -f "$work/prefix/share/doc/libzav7km-gcc295/key-management-library.md" ] || fail "docs not installed"
for f in man/man1/tolvik.1.gz bash-completion/completions/tolvik zsh/vendor-completions/_tolvik \
  fish/vendor_completions.d/tolvik.fish doc/tolvik/tolvik.schema.json; do
  [ -f "$work/prefix/share/$f" ] || fail "share/$f not installed"
done

cpack --config "$build/CPackConfig.cmake" -B "$work/packages" > "$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log"; fail "cpack"; }
for deb in "$work"/packages/*.deb; do dpkg -x "$deb" "$work/root"; done
uses "$work/root/usr"
depends=$(dpkg-deb -f "$work"/packages/libzav7km-gcc295_*.deb Depends)
for dep in libssl3 libsqlite3-0 libp11-kit0; do
  [[ $depends == *"$dep"* ]] || fail "the library package does not depend on $dep: $depends"
done
if command -v lintian > /dev/null; then
  lintian "$work"/packages/*.deb > "$work/lintian.out" 2>&1 || true
  ! grep '^E:' "$work/lintian.out" || fail "lintian errors"
  ! grep 'no-manual-page' "$work/lintian.out" || fail "lintian finds no manual page"
fi
echo "installed tree and packages: ok"
