// What the benchmark programs share: the roots they measure (made once by bench_mkroots, found
// through KOVA_BENCH_ROOTS), CPU time that includes the commands a call runs, and whole processes
// measured by wait4.
#pragma once

#include <benchmark/benchmark.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace kova_bench {

namespace fs = std::filesystem;

// ---- roots ----------------------------------------------------------------------------------
// A roots directory holds:
//   corpus/         the shipped example root topped up with generated services to ~220 sections
//   quiet/          corpus/ without the example's file of faulty sections, whose log lines every
//                   catalogue built on corpus/ repeats
//   s<N>/           the example root topped up to N .sc files (one to three sections each)
//   ports<K>/       1,000 .sc files of one section declaring K single ports each
//   install/        .sc files to install: one.sc (one section), sections<K>.sc (K sections)
// Every root has a proc/net with a few hundred sockets, so that the in-use source has tables.

// Writes every root above into `dir`, from `example` (the shipped example root), for each of the
// file counts in `sizes`.
void make_roots(const fs::path &dir, const fs::path &example, const std::vector<int> &sizes);

// A program measures the root named by KOVA_ROOT (the library is never pointed at another root
// within one process); KOVA_BENCH_ROOTS names the directory of all roots. Either missing: the
// program exits with a message naming bench/run.
fs::path current_root();
fs::path roots_dir();
// The number of .sc service sections in the catalogue (records minus the built-in table).
int catalogue_sections();

void write_file(const fs::path &path, const std::string &text);

// The parts appended into one string (operator+ chains trip GCC 12's -Wrestrict in Release).
template <class... Parts>
std::string cat(const Parts &...parts) {
    std::string text;
    (text.append(std::string_view(parts)), ...);
    return text;
}

// ---- time -----------------------------------------------------------------------------------
// User plus system CPU seconds of this process and of every child it has waited for.
double cpu_self_and_children();

// Runs `body` once per iteration and reports as the iteration time the CPU time it took,
// children included (the benchmark must be registered with UseManualTime()).
template <class Body>
void time_with_children(benchmark::State &state, Body &&body) {
    for (auto _ : state) {
        const double start = cpu_self_and_children();
        body();
        state.SetIterationTime(cpu_self_and_children() - start);
    }
}

// ---- whole processes ------------------------------------------------------------------------
struct ProcessUsage {
    double cpu = -1;      // user + system seconds; negative when it could not be run
    long max_rss_kb = 0;  // peak resident set
    int status = -1;      // exit status
};

// Runs argv (output discarded, KOVA_LOG_FILE unset) and waits for it with wait4.
ProcessUsage run_process(const std::vector<std::string> &argv);

// Times one whole-process contender: CPU per run as the iteration time, peak RSS as a counter.
// Statuses other than those in `ok` fail the benchmark.
void bench_process(benchmark::State &state, const std::vector<std::string> &argv, std::vector<int> ok = {0});

// Runs the registered benchmarks with the command line's --benchmark_* options; the exit status.
int run_benchmarks(int argc, char **argv);

// Directory of the running program.
fs::path program_dir();

}  // namespace kova_bench
