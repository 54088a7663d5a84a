#!/bin/sh
# Installs the build into a fresh prefix, then builds C99 and C++ clients against the installed
# tree only through pkg-config and runs them with KOVA_ROOT and KOVA_LOG_FILE set; the tool, its
# manual page and completion are where they belong and work on a copy of the example root.
set -eu
build=$1
prefix=$2
src=$3
extra=${4:-}
checkout=$5
rm -rf "$prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
pcdir=$(dirname "$(find "$prefix" -name kovaserviceconf.pc | head -n 1)")
if grep -q rpath "$pcdir/kovaserviceconf.pc"; then echo "kovaserviceconf.pc injects an rpath"; exit 1; fi
export PKG_CONFIG_PATH="$pcdir"
cflags=$(pkg-config --cflags kovaserviceconf)
libs=$(pkg-config --libs kovaserviceconf)
work="$prefix.work"
rm -rf "$work"
mkdir -p "$work"
trap 'rm -rf "$work"' EXIT
# The header alone compiles cleanly as pedantic C99 and as C++.
printf '#include <kovaserviceconf.h>\nint main(void) { return 0; }\n' >"$work/h.c"
cc -std=c99 -Wall -Wextra -pedantic -Werror $cflags -c "$work/h.c" -o "$work/h.o"
c++ -x c++ -std=c++17 -Wall -Wextra -pedantic -Werror $cflags -c "$work/h.c" -o "$work/hpp.o"
# shellcheck disable=SC2086
cc -std=c99 -Wall -Wextra -pedantic -Werror $extra "$src/client.c" -o "$work/client" $cflags $libs
mkdir -p "$work/root"
# The .pc file injects no rpath: the client finds the installed libraries as any program would.
LD_LIBRARY_PATH="$(dirname "$pcdir")" KOVA_ROOT="$work/root" KOVA_LOG_FILE="$work/log" "$work/client" "$work/log"
echo "installed client ok"

# The CMake package: find_package(KovaServiceConf) and the imported target.
mkdir -p "$work/cmake"
cat >"$work/cmake/CMakeLists.txt" <<'CMK'
cmake_minimum_required(VERSION 3.20)
project(client C)
find_package(KovaServiceConf REQUIRED)
add_executable(client client.c)
target_link_libraries(client PRIVATE KovaServiceConf::kovaserviceconf)
CMK
cp "$src/client.c" "$work/cmake/client.c"
cmake -S "$work/cmake" -B "$work/cmake/build" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS="$extra" >/dev/null
cmake --build "$work/cmake/build" >/dev/null
KOVA_ROOT="$work/root" "$work/cmake/build/client"
echo "find_package client ok"

svc="$prefix/bin/kova-svc"
test -f "$prefix/share/man/man1/kova-svc.1"
test -f "$prefix/share/bash-completion/completions/kova-svc"
export LD_LIBRARY_PATH="$(dirname "$pcdir")"
"$svc" -V | grep -q '^kova-svc '
cp -R "$checkout/examples/root" "$work/example"
printf '[installed-check]\ntitle=T\ndesc=D\ndst.ports=41999/tcp\n' >"$work/example/usr/local/etc/services.d/check.sc"
"$svc" --root "$work/example" list | grep -q '^installed-check  *package '
status=0
"$svc" --root "$work/example" check 41999/tcp --sources services >/dev/null || status=$?
[ "$status" -eq 1 ] || { echo "check: expected exit status 1, got $status"; exit 1; }
echo "installed tool ok"
