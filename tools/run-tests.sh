#!/usr/bin/env bash
# Builds the project twice (plain, and with AddressSanitizer + UndefinedBehaviorSanitizer) and
# runs the whole test suite on each build. Installs the build tools from Debian's packages when
# they are missing.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"

need=()
command -v cmake >/dev/null || need+=(cmake)
command -v g++ >/dev/null || need+=(g++)
command -v pkg-config >/dev/null || need+=(pkg-config)
command -v nm >/dev/null || need+=(binutils)
[ -f /usr/include/gtest/gtest.h ] || need+=(libgtest-dev)
[ -f /usr/include/gmock/gmock.h ] || need+=(libgmock-dev)
[ -f /usr/include/benchmark/benchmark.h ] || need+=(libbenchmark-dev)
if [ ${#need[@]} -gt 0 ]; then
    echo "installing: ${need[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq "${need[@]}" >/dev/null
fi

jobs=$(nproc 2>/dev/null || echo 2)

echo "== plain build"
cmake -S . -B build-ci -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build-ci -j"$jobs"
ctest --test-dir build-ci -j"$jobs" --output-on-failure --timeout 300

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
cmake -S . -B build-ci-asan -DCMAKE_BUILD_TYPE=Debug -DKOVA_SANITIZE=ON -DKOVA_BUILD_BENCH=OFF >/dev/null
cmake --build build-ci-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir build-ci-asan -j"$jobs" --output-on-failure --timeout 600
