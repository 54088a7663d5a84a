#!/usr/bin/env bash
# Builds the project twice (Release, and with AddressSanitizer + UndefinedBehaviorSanitizer) and
# runs the whole test suite on each build. Installs what the build and the tests need from
# Debian's packages when it is missing.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
. tools/need-packages.sh
need_packages "cmake:command -v cmake" "make:command -v make" "gcc:command -v cc" "g++:command -v g++" \
    "pkg-config:command -v pkg-config" "binutils:command -v nm" "groff-base:command -v groff" \
    "python3:command -v python3" "libgtest-dev:test -f /usr/include/gtest/gtest.h" \
    "libgmock-dev:test -f /usr/include/gmock/gmock.h" \
    "libbenchmark-dev:test -f /usr/include/benchmark/benchmark.h"

# Renders the audit page in one test; that test skips, saying so, where Chromium cannot be had.
need_packages "chromium:command -v chromium" "fonts-dejavu-core:test -d /usr/share/fonts/truetype/dejavu" ||
    echo "chromium could not be installed: the audit page is parsed but not rendered"

jobs=$(nproc 2>/dev/null || echo 2)

echo "== Release build (warnings are errors here too)"
cmake -S . -B build-ci -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build-ci -j"$jobs"
ctest --test-dir build-ci -j"$jobs" --output-on-failure --timeout 300

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
cmake -S . -B build-ci-asan -DCMAKE_BUILD_TYPE=Debug -DKOVA_SANITIZE=ON -DKOVA_BUILD_BENCH=OFF >/dev/null
cmake --build build-ci-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir build-ci-asan -j"$jobs" --output-on-failure --timeout 600
