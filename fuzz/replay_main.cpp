// Replays inputs through a harness without a fuzzing engine, so that the harnesses build with
// any compiler and run as regression tests: every argument is a file, or a directory whose
// regular files are replayed (in name order). A harness that finds a broken invariant aborts.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
    namespace fs = std::filesystem;
    std::vector<fs::path> files;
    for (int i = 1; i < argc; ++i) {
        if (!fs::is_directory(argv[i])) {
            files.push_back(argv[i]);
            continue;
        }
        for (const fs::directory_entry &e : fs::directory_iterator(argv[i]))
            if (e.is_regular_file() && e.path().filename().string()[0] != '.') files.push_back(e.path());
    }
    std::sort(files.begin(), files.end());
    for (const fs::path &file : files) {
        std::ifstream in(file, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (!in.is_open()) {
            std::fprintf(stderr, "cannot read %s\n", file.c_str());
            return 2;
        }
        // An exactly sized heap copy, as a fuzzing engine passes it, so that a sanitizer sees
        // any read past its end.
        const std::unique_ptr<uint8_t[]> input(new uint8_t[std::max<size_t>(bytes.size(), 1)]);
        std::copy(bytes.begin(), bytes.end(), input.get());
        std::fprintf(stderr, "replay %s (%zu bytes)\n", file.c_str(), bytes.size());
        LLVMFuzzerTestOneInput(input.get(), bytes.size());
    }
    std::printf("replayed %zu inputs\n", files.size());
    return files.empty() ? 2 : 0;  // no input: a misspelt directory must not pass
}
