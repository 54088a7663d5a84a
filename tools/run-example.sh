#!/usr/bin/env bash
# Builds the library and kova-svc (installing cmake and the compilers from Debian's packages
# when they are missing) and runs the main job on the shipped example root.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
. tools/need-packages.sh
need_packages "cmake:command -v cmake" "make:command -v make" "gcc:command -v cc" "g++:command -v g++"

cmake -S . -B build -DKOVA_BUILD_TESTS=OFF -DKOVA_BUILD_BENCH=OFF >/dev/null
cmake --build build -j"$(nproc 2>/dev/null || echo 2)" >/dev/null
export KOVA_ROOT="$top/examples/root"
run() {
    echo "\$ kova-svc $*"
    build/tools/kova-svc "$@" || true
    echo
}
run list
run check 445,5000-5010/tcp
run show kova-webdav
run who 873
run free --near 8000 --count 3
echo "\$ kova-svc --root / sockets --listening"
build/tools/kova-svc --root / sockets --listening
