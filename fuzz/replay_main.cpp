// Replays inputs through a harness without a fuzzing engine, so that the harnesses build with
// any compiler and run as regression tests: every argument is a file, or a directory whose
// regular files are replayed in name order. A harness that finds a broken invariant aborts.
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
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

int main(int argc, char **argv) {
    namespace fs = std::filesystem;
    if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) {
        std::error_code ec;
        if (!fs::is_directory(argv[i], ec)) {
            files.push_back(argv[i]);
            continue;
        }
        std::vector<std::string> found;
        for (const auto &entry : fs::directory_iterator(argv[i], ec))
            if (entry.path().filename().string()[0] != '.' && entry.is_regular_file(ec)) found.push_back(entry.path());
        std::sort(found.begin(), found.end());
        files.insert(files.end(), found.begin(), found.end());
    }
    if (files.empty()) {
        std::fprintf(stderr, "usage: %s FILE|DIR...: no input to replay\n", argv[0]);
        return 2;
    }
    for (const std::string &file : files) {
        std::ifstream in(file, std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "cannot read %s\n", file.c_str());
            return 2;
        }
        const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        // An exactly sized heap copy, as a fuzzing engine passes it, so that a sanitizer sees
        // any read past its end.
        std::unique_ptr<uint8_t[]> input(new uint8_t[bytes.size() + (bytes.empty() ? 1 : 0)]);
        std::copy(bytes.begin(), bytes.end(), input.get());
        std::fprintf(stderr, "replay %s (%zu bytes)\n", file.c_str(), bytes.size());
        LLVMFuzzerTestOneInput(input.get(), bytes.size());
    }
    std::printf("replayed %zu inputs\n", files.size());
    return 0;
}
