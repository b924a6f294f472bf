#!/usr/bin/env bash
# Prepares everything the Windows cross-build needs and prints the folder that
# holds SQLite and cJSON built for Windows.
#
# SQLite and cJSON are built from Debian's source packages of exactly the
# versions the Linux build uses (their -dev packages), with Debian's patches,
# by the mingw-w64 cross compiler. The result is cached outside the
# repository, keyed by those versions, and reused on the next run.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"

"$here/deps.sh" g++-mingw-w64-x86-64 mingw-w64 wine64 dpkg-dev tcl googletest >&2

as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)

sqlite_version=$(dpkg-query -W -f='${source:Version}' libsqlite3-dev)
cjson_version=$(dpkg-query -W -f='${source:Version}' libcjson-dev)
cache_root="${ZORV_DEPS_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/zorv}"
prefix="$cache_root/win64-sqlite3_${sqlite_version}-cjson_${cjson_version}"
if [ -f "$prefix/.complete" ]; then
  echo "$prefix"
  exit 0
fi

# Source packages need a deb-src entry for the archive the machine already uses.
if ! apt-get indextargets --format '$(CREATED_BY)' 2>/dev/null | grep -q '^Sources$'; then
  sources=/etc/apt/sources.list.d/zorv-deb-src.sources
  if ls /etc/apt/sources.list.d/*.sources >/dev/null 2>&1; then
    for file in /etc/apt/sources.list.d/*.sources; do
      [ "$file" = "$sources" ] || sed -n 's/^Types: deb$/Types: deb-src/;p' "$file"
      echo
    done | "${as_root[@]}" tee "$sources" >/dev/null
  fi
  if [ -f /etc/apt/sources.list ]; then
    sed -n 's/^deb \(.*\)/deb-src \1/p' /etc/apt/sources.list | "${as_root[@]}" tee /etc/apt/sources.list.d/zorv-deb-src.list >/dev/null
  fi
  "${as_root[@]}" apt-get update -qq >&2
fi

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cd "$work"
echo "Building SQLite $sqlite_version and cJSON $cjson_version for Windows in $prefix" >&2
apt-get source --download-only "sqlite3=$sqlite_version" "cjson=$cjson_version" >&2
dpkg-source -x sqlite3_*.dsc sqlite3 >&2
dpkg-source -x cjson_*.dsc cjson >&2

cross=x86_64-w64-mingw32
mkdir -p "$prefix/include" "$prefix/lib"

# SQLite: generate the amalgamation with the native tools, then compile it for
# Windows with Debian's own compile-time options.
(
  cd sqlite3
  ./configure --quiet >/dev/null
  make -s sqlite3.c >&2
  sqlite_flags=$(sed -n '/^export CFLAGS += /,/[^\\]$/p' debian/rules | tr -d '\\\n' | sed 's/^export CFLAGS += //')
  # Loadable extensions are a POSIX build option that the engine never uses.
  sqlite_flags=$(echo "$sqlite_flags" | sed 's/-DSQLITE_ENABLE_LOAD_EXTENSION//')
  # shellcheck disable=SC2086
  "$cross-gcc-posix" $sqlite_flags -c sqlite3.c -o sqlite3.o
  "$cross-ar" rcs "$prefix/lib/libsqlite3.a" sqlite3.o
  cp sqlite3.h sqlite3ext.h "$prefix/include/"
)

# cJSON: its own CMake build, as a static library with no symbols of its own
# exported; zorv.dll re-exports the API through its module-definition file.
cmake -S cjson -B cjson-build -G Ninja -DCMAKE_TOOLCHAIN_FILE="$here/../cmake/toolchains/x86_64-w64-mingw32.cmake" \
  -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" -DBUILD_SHARED_LIBS=OFF \
  -DENABLE_PUBLIC_SYMBOLS=OFF -DENABLE_HIDDEN_SYMBOLS=ON -DENABLE_CJSON_TEST=OFF -DENABLE_CJSON_UTILS=OFF \
  -DENABLE_CUSTOM_COMPILER_FLAGS=OFF >&2
cmake --build cjson-build >&2
cmake --install cjson-build >&2

touch "$prefix/.complete"
echo "$prefix"
