#!/usr/bin/env bash
# Builds the Debian packages with scripts/package.sh and checks them without installing them:
# names, version, Depends (Debian packages only), contents, no build-tree path inside any file;
# then runs the unpacked korvel --version and builds the examples against the unpacked
# development files.
# Usage: package_test.sh SOURCE_DIR WORK VERSION
set -euo pipefail
source_dir=$1
work=$2
version=$3
rm -rf "$work"
mkdir -p "$work"
fail() {
  echo "package_test: $*" >&2
  exit 1
}

bash "$source_dir/scripts/package.sh" "$work/build"
library=libkorvel${version%%.*}
root=$work/root
mkdir -p "$work/control"
for package in "$library" libkorvel-dev korvel; do
  debs=("$work/build/${package}_${version}_"*.deb)
  deb=${debs[0]}
  test -f "$deb" || fail "no package $package $version"
  test "$(dpkg-deb -f "$deb" Package)" = "$package" || fail "$deb is not $package"
  test "$(dpkg-deb -f "$deb" Version)" = "$version" || fail "$package: version is not $version"
  depends=$(dpkg-deb -f "$deb" Depends)
  echo "$package: Depends: $depends"
  case $package in
    "$library") wanted=(libc6 libstdc++6 libzookeeper-mt2) ;;
    libkorvel-dev) wanted=("$library (= $version)" libzookeeper-mt-dev libboost-dev) ;;
    korvel) wanted=("$library (= $version)" libc6 libstdc++6 libzookeeper-mt2) ;;
  esac
  for dependency in "${wanted[@]}"; do
    [[ ", $depends," == *", $dependency"[\ ,]* ]] || fail "$package does not depend on $dependency"
  done
  [[ $depends != */* ]] || fail "$package depends on a path: $depends"
  dpkg-deb -e "$deb" "$work/control/$package"
  dpkg-deb -x "$deb" "$root"
done

# No path of the source or build tree in any file, the compressed man page included.
while IFS= read -r -d '' file; do
  if [[ $file == *.gz ]]; then text=$(zcat "$file"); else text=$(strings -a "$file"); fi
  for path in "$source_dir" "$work"; do
    [[ $text != *"$path"* ]] || fail "${file#"$work"} names $path"
  done
done < <(find "$root" "$work/control" -type f -print0)

libdir=$(dirname "$(find "$root/usr/lib" -name libkorvel.so.0)")
test "$(readlink "$libdir/libkorvel.so.0")" = "libkorvel.so.$version" ||
  fail "libkorvel.so.0 does not point at libkorvel.so.$version"
readelf -d "$libdir/libkorvel.so.$version" | grep 'SONAME.*\[libkorvel\.so\.0\]' >/dev/null ||
  fail "libkorvel.so.$version has not the SONAME libkorvel.so.0"
for file in "$libdir/libkorvel.so" usr/include/korvel/service.h usr/include/korvel/version.h \
  usr/include/korvel/support/logger/logger.h "$libdir/cmake/korvel/korvelConfig.cmake" \
  "$libdir/cmake/korvel/korvelConfigVersion.cmake" "$libdir/pkgconfig/korvel.pc" usr/bin/korvel \
  usr/share/man/man1/korvel.1.gz usr/lib/systemd/system/korvel-register@.service; do
  [[ $file == /* ]] || file=$root/$file
  test -e "$file" || fail "not packaged: ${file#"$root"}"
done
grep -q "^ExecStart=/usr/bin/korvel " "$root/usr/lib/systemd/system/korvel-register@.service" ||
  fail "the unit does not start /usr/bin/korvel"
zcat "$root/usr/share/man/man1/korvel.1.gz" | grep '^\.TH KORVEL "1" .*"korvel '"$version"'"' >/dev/null ||
  fail "the man page is not korvel(1) of $version"
zcat "$root/usr/share/man/man1/korvel.1.gz" | grep 'serve' >/dev/null || fail "the man page has no commands"

reported=$(LD_LIBRARY_PATH="$libdir" "$root/usr/bin/korvel" --version)
test "$reported" = "korvel $version" || fail "korvel --version says '$reported'"
test "$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --modversion korvel)" = "$version" ||
  fail "korvel.pc has not version $version"
grep -qF "set(PACKAGE_VERSION \"$version\")" "$libdir/cmake/korvel/korvelConfigVersion.cmake" ||
  fail "the CMake package has not version $version"
echo "unpacked: $reported"

bash "$source_dir/tests/build_examples.sh" "$source_dir" "$root/usr" "$work/examples"
LD_LIBRARY_PATH="$libdir" ldd "$work/examples/list_instances" | grep -F "$libdir/libkorvel.so.0" >/dev/null ||
  fail "the example is not linked with the unpacked libkorvel.so.0"
echo "examples built against the unpacked libkorvel-dev"
