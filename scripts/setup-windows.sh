#!/usr/bin/env bash
# Sets up a Debian 12 machine to build qf-forms for Windows x64 and builds it into
# ./build-windows (run scripts/setup.sh first: the comparison tests use the Linux build).
#
# Installs Debian's MinGW-w64 toolchain (posix threads) and wine, then builds the libraries
# that Debian ships no MinGW build of (libjpeg, qpdf, FreeType, HarfBuzz) from Debian's own
# source packages into build-windows/deps, as static libraries. Each is built once: a
# stamp names the source version and the recipe, so a second run goes straight to the
# (incremental) build of the tree. Nothing is downloaded but Debian's packages.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
root=$PWD
build=$root/build-windows
deps=$build/deps
prefix=$deps/prefix
jobs=${QF_JOBS:-$(nproc)}
started=$SECONDS

sudo=()
if [[ $(id -u) -ne 0 ]]; then
  if command -v sudo >/dev/null; then
    sudo=(sudo)
  else
    need_root=1
  fi
fi

packages=(
  cmake ninja-build pkg-config dpkg-dev xz-utils
  g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64
  mingw-w64-x86-64-dev libz-mingw-w64-dev
  wine wine64
  libboost-dev nlohmann-json3-dev libvalijson-dev googletest
  fonts-dejavu-core fonts-ipafont-gothic
)
missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null || true)
  [[ "$status" == installed ]] || missing+=("$p")
done

# apt-get source needs the source indexes: the same archives as the binary ones, with
# deb-src, in a file of their own.
src_list=/etc/apt/sources.list.d/qf-forms-deb-src.sources
need_sources=0
if [[ ! -f $src_list ]] && ! grep -rqs '^\(deb-src\|Types:.*deb-src\)' /etc/apt/sources.list \
     /etc/apt/sources.list.d/; then
  need_sources=1
fi

if ((${#missing[@]} || need_sources)); then
  if [[ -n ${need_root:-} ]]; then
    echo "setup-windows: run as root to install: ${missing[*]} (and deb-src lines)" >&2
    exit 1
  fi
  export DEBIAN_FRONTEND=noninteractive
  if ((need_sources)); then
    echo "setup-windows: adding the source archives to $src_list"
    if [[ -f /etc/apt/sources.list.d/debian.sources ]]; then
      sed 's/^Types:.*/Types: deb-src/' /etc/apt/sources.list.d/debian.sources |
        "${sudo[@]}" tee "$src_list" >/dev/null
    else
      grep -h '^deb ' /etc/apt/sources.list | sed 's/^deb /deb-src /' |
        "${sudo[@]}" tee "${src_list%.sources}.list" >/dev/null
    fi
  fi
  "${sudo[@]}" apt-get update
  if ((${#missing[@]})); then
    echo "setup-windows: installing ${missing[*]}"
    "${sudo[@]}" apt-get install -y --no-install-recommends "${missing[@]}" </dev/null
  fi
fi
echo "setup-windows: packages ready ($((SECONDS - started)) s)"

toolchain=$root/cmake/mingw-w64-x86_64.cmake
mkdir -p "$deps/src" "$prefix"
# pkg-config answers for the Windows libraries only, never with the build machine's.
export PKG_CONFIG_LIBDIR=$prefix/lib/pkgconfig PKG_CONFIG_PATH=

# build_dep PACKAGE RECIPE TARGET COMPONENT CMAKE-ARGS...: fetches and unpacks Debian's
# source package (with Debian's patches applied), builds TARGET of it ("all": everything)
# as static libraries with the toolchain and installs COMPONENT ("": all) into the prefix.
# RECIPE is part of the stamp: change it when the arguments change.
build_dep() {
  local package=$1 recipe=$2 target=$3 component=$4
  shift 4
  local version
  version=$(apt-cache showsrc "$package" | sed -n 's/^Version: //p' | sort -V | tail -1)
  if [[ -z $version ]]; then
    echo "setup-windows: no source package $package (is deb-src configured?)" >&2
    exit 1
  fi
  local stamp=$deps/$package.stamp
  if [[ -f $stamp && $(<"$stamp") == "$version $recipe" ]]; then
    return
  fi
  local t0=$SECONDS
  echo "setup-windows: building $package $version for Windows"
  rm -rf "$deps/src/$package" "$deps/build-$package"
  mkdir -p "$deps/src/$package"
  (cd "$deps/src/$package" && apt-get source --download-only "$package=$version" >/dev/null 2>&1 &&
     dpkg-source -x --no-check ./*.dsc tree >/dev/null)
  cmake -S "$deps/src/$package/tree" -B "$deps/build-$package" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DQF_WINDOWS_DEPS="$prefix" \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_C_FLAGS_RELEASE="-O2 -DNDEBUG" \
    -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" -DCMAKE_INSTALL_PREFIX="$prefix" \
    -DBUILD_SHARED_LIBS=OFF "$@" >"$deps/$package.log"
  cmake --build "$deps/build-$package" -j "$jobs" --target "$target" >>"$deps/$package.log"
  cmake --install "$deps/build-$package" ${component:+--component "$component"} \
    >>"$deps/$package.log"
  if declare -F "after_${package//-/_}" >/dev/null; then "after_${package//-/_}"; fi
  rm -rf "$deps/src/$package" "$deps/build-$package"
  echo "$version $recipe" >"$stamp"
  echo "setup-windows: $package built ($((SECONDS - t0)) s)"
}

build_dep libjpeg-turbo 2 all "" -DENABLE_SHARED=OFF -DWITH_SIMD=OFF -DWITH_TURBOJPEG=OFF
# qpdf's configure checks link with "Advapi32", which a case-sensitive file system has only
# in lower case.
mkdir -p "$deps/names"
ln -sf /usr/x86_64-w64-mingw32/lib/libadvapi32.a "$deps/names/libAdvapi32.a"
build_dep qpdf 2 libqpdf dev -DCMAKE_REQUIRED_LINK_OPTIONS=-L"$deps/names" -DBUILD_STATIC_LIBS=ON -DREQUIRE_CRYPTO_NATIVE=ON -DUSE_IMPLICIT_CRYPTO=OFF \
  -DBUILD_DOC=OFF -DINSTALL_EXAMPLES=OFF -DINSTALL_MANUAL=OFF
# With MinGW's zlib: its own copy would define zlib's symbols a second time beside qpdf's.
build_dep freetype 3 all "" -DFT_REQUIRE_ZLIB=ON -DFT_DISABLE_BZIP2=ON -DFT_DISABLE_PNG=ON \
  -DFT_DISABLE_HARFBUZZ=ON -DFT_DISABLE_BROTLI=ON
# hb-subset's archive compiles again some sources that the main library's single unit
# (harfbuzz.cc) includes: a static link takes them from the main one only.
after_harfbuzz() {
  local member
  for member in $(x86_64-w64-mingw32-ar t "$prefix/lib/libharfbuzz-subset.a"); do
    if grep -qx "#include \"${member%.obj}\"" "$deps/src/harfbuzz/tree/src/harfbuzz.cc"; then
      x86_64-w64-mingw32-ar d "$prefix/lib/libharfbuzz-subset.a" "$member"
    fi
  done
}
build_dep harfbuzz 4 all "" -DHB_BUILD_SUBSET=ON -DHB_HAVE_FREETYPE=OFF -DHB_BUILD_TESTS=OFF
echo "setup-windows: libraries ready ($((SECONDS - started)) s)"

# The corpus where the Linux build finds it.
corpus=()
if [[ -f build/CMakeCache.txt ]]; then
  dir=$(sed -n 's/^QF_CORPUS_DIR:PATH=//p' build/CMakeCache.txt)
  [[ -n $dir ]] && corpus=(-DQF_CORPUS_DIR="$dir")
fi
# Optimised without debug information: the libraries link in seconds, not minutes.
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" \
  -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DQF_WINDOWS_DEPS="$prefix" -DQF_BUILD_BENCH=OFF \
  -DQF_LINUX_BUILD="$root/build" "${corpus[@]}"
cmake --build "$build" -j "$jobs"
echo "setup-windows: done ($((SECONDS - started)) s)"
