#!/usr/bin/env bash
# Builds the project and runs the main job on the shipped example root.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
cmake -S . -B build -DKOVA_BUILD_TESTS=OFF -DKOVA_BUILD_BENCH=OFF >/dev/null
cmake --build build -j"$(nproc 2>/dev/null || echo 2)" >/dev/null
export KOVA_ROOT="$top/examples/root"
if [ -x build/tools/kova-svc ]; then
    svc=build/tools/kova-svc
    echo '$ kova-svc list'; "$svc" list
    echo; echo '$ kova-svc check 445,5000:5010/tcp'; "$svc" check 445,5000:5010/tcp || true
    echo; echo '$ kova-svc free --near 8000 --count 3'; "$svc" free --near 8000 --count 3 || true
    echo; echo '$ kova-svc --root / sockets --listening'; "$svc" --root / sockets --listening || true
else
    build/kova_list "80,443,8000:8010/tcp" "5000:5010/udp"
fi
