#!/bin/sh
# The shared library's dynamic symbol table holds exactly the names of the export list.
set -eu
lib=$1
list=$2
actual="$list.actual"
expected="$list.expected"
trap 'rm -f "$actual" "$expected"' EXIT
nm -D --defined-only "$lib" | awk '$2 ~ /^[TDRBVWuiG]$/ {print $3}' | sed 's/@.*//' | sort -u >"$actual"
sort -u "$list" >"$expected"
if ! diff -u "$expected" "$actual"; then
    echo "exported symbols differ from the export list (- missing, + unexpected)" >&2
    exit 1
fi
echo "exports match: $(wc -l <"$expected") names"
