#!/bin/sh
# Installs the build into a fresh prefix: the tool, its manual page and completion are where
# they belong and work on a copy of the example root, and the pkg-config module links a C
# program that calls platform operations the header declares, without an rpath.
set -eu
build=$1
prefix=$2
src=$3
extra=${4:-}
rm -rf "$prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
svc="$prefix/bin/kova-svc"
test -f "$prefix/share/man/man1/kova-svc.1"
test -f "$prefix/share/bash-completion/completions/kova-svc"
pc=$(find "$prefix" -name kovaserviceconf.pc)
if grep -q rpath "$pc"; then echo "kovaserviceconf.pc injects an rpath"; exit 1; fi
libdir=$(dirname "$(dirname "$pc")")

cat >"$prefix/app.c" <<'C'
#include <kovaserviceconf.h>
#include <stdio.h>
int main(void) {
    int32_t ssh = 0, port = 0;
    int n = 1;
    KOVA_FTP_PASSIVE_PORT ftp;
    KOVAServiceSSHPortGet(&ssh);
    char *text = KVLIBCStrGet("%d", (int)ssh);
    printf("%s %d %s %d\n", text, KOVAFTPDefaultPassivePortGet(&ftp) == 0, KOVAPFRuleConfPathGet(),
           KOVANetGetPortUsedInRange(&port, &n, 1, 1, 1) >= -1);
    KVLIBCStrPut(text);
    return 0;
}
C
# shellcheck disable=SC2046
# shellcheck disable=SC2086
cc -std=c99 -Wall -Werror $extra -o "$prefix/app" "$prefix/app.c" \
    $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs kovaserviceconf)
LD_LIBRARY_PATH="$libdir" KOVA_ROOT="$prefix" "$prefix/app" | grep -q '^22 1 '

export LD_LIBRARY_PATH="$libdir"
"$svc" -V | grep -q '^kova-svc '
root="$prefix/root"
mkdir -p "$root"
cp -R "$src/examples/root/." "$root/"
printf '[installed-check]\ntitle=T\ndesc=D\ndst.ports=41999/tcp\n' >"$root/usr/local/etc/services.d/check.sc"
"$svc" --root "$root" list | grep -q '^installed-check  *package '
status=0
"$svc" --root "$root" check 41999/tcp --sources services >/dev/null || status=$?
[ "$status" -eq 1 ] || { echo "check: expected exit status 1, got $status"; exit 1; }
echo "installed tool ok"
