#!/bin/sh
# Installs the build into a fresh prefix and runs the installed tool on a copy of the example
# root: binary, manual page and completion are where they belong, and the tool works.
set -eu
build=$1
prefix=$2
src=$3
rm -rf "$prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
svc="$prefix/bin/kova-svc"
test -x "$svc"
test -f "$prefix/share/man/man1/kova-svc.1"
test -f "$prefix/share/bash-completion/completions/kova-svc"
libdir=$(dirname "$(find "$prefix" -name 'libkovaserviceconf.so*' | head -n 1)")
export LD_LIBRARY_PATH="$libdir"
root="$prefix/root"
mkdir -p "$root"
if [ -d "$src/examples/root" ]; then cp -R "$src/examples/root/." "$root/"; fi
mkdir -p "$root/usr/local/etc/services.d"
printf '[installed-check]\ntitle=T\ndesc=D\ndst.ports=41999/tcp\n' >"$root/usr/local/etc/services.d/check.sc"
"$svc" --version | grep -q '^kova-svc '
"$svc" --help | grep -q '^Usage: kova-svc'
"$svc" --root "$root" list | grep -q '^installed-check  *package '
"$svc" --root "$root" list --json | grep -q '"name":"installed-check"'
status=0
"$svc" --root "$root" check 41999/tcp --sources services >/dev/null || status=$?
[ "$status" -eq 1 ] || { echo "check: expected exit status 1, got $status"; exit 1; }
echo "installed tool ok"
