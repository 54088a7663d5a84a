#!/usr/bin/env bash
# Times the runtime socket inventory (RuntimeServiceListFetch) against `ss -tuanp` and
# `lsof -i -n -P` on this machine, in one run, over the same sockets: for each size,
# bench_runtime_inventory --compare opens that many sockets (TCP listening and UDP bound on
# 127.0.0.1, held by the program and three children), runs the three contenders in turn after
# a warm-up run each, and prints the medians and the inventory's time as a ratio of each
# tool's (below 1: the inventory is faster).
#
# Usage: bench/compare_ss.sh [SIZE...]          (default sizes: 1000 10000)
# Environment:
#   RUNS       timed runs per contender and size (default 7)
#   BUILD_DIR  build directory for an optimised build without sanitizers (default build-bench)
#   BENCH_BIN  an already built bench_runtime_inventory; no build then
#
# A missing ss (package iproute2) or lsof is installed with apt-get when this runs as root,
# otherwise that comparison is skipped with a message.
set -euo pipefail

src="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${BUILD_DIR:-$src/build-bench}"
runs="${RUNS:-7}"
sizes=("$@")
[ ${#sizes[@]} -gt 0 ] || sizes=(1000 10000)

can_install() {
    [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null 2>&1
}

apt_install() {
    export DEBIAN_FRONTEND=noninteractive
    apt-get install -y -qq "$@" >/dev/null 2>&1 ||
        { apt-get update -qq >/dev/null 2>&1 && apt-get install -y -qq "$@" >/dev/null 2>&1; }
}

# The path of a tool, installing its package when it is missing and we may; empty if it stays
# missing.
find_tool() {
    local name=$1 package=$2 path
    path="$(command -v "$name" 2>/dev/null || true)"
    if [ -z "$path" ] && can_install; then
        echo "installing $package (for $name)" >&2
        apt_install "$package" || true
        path="$(command -v "$name" 2>/dev/null || true)"
    fi
    [ -n "$path" ] || echo "$name is not available: its comparison is skipped" >&2
    printf '%s' "$path"
}

ss_path="$(find_tool ss iproute2)"
lsof_path="$(find_tool lsof lsof)"

bin="${BENCH_BIN:-}"
if [ -z "$bin" ]; then
    if ! dpkg -s libbenchmark-dev >/dev/null 2>&1 && can_install; then
        echo "installing libbenchmark-dev" >&2
        apt_install libbenchmark-dev || true
    fi
    cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=Release -DKOVA_BUILD_TESTS=OFF -DKOVA_SANITIZE=OFF >/dev/null
    if ! cmake --build "$build" -j2 --target bench_runtime_inventory >"$build/compare_ss.build.log" 2>&1; then
        echo "could not build bench_runtime_inventory (see $build/compare_ss.build.log)" >&2
        exit 1
    fi
    bin="$build/bench/bench_runtime_inventory"
fi

# The inventory must read the machine's own process table, where the sockets are.
unset KOVA_ROOT
status=0
for n in "${sizes[@]}"; do
    "$bin" --compare="$n" --runs="$runs" --ss="$ss_path" --lsof="$lsof_path" || status=$?
done
exit "$status"
