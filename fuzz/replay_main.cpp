// Replays inputs through a harness without a fuzzing engine, so that the harnesses build with
// any compiler and run as regression tests: every argument is a file, or a directory whose
// regular files are replayed in name order. A harness that finds a broken invariant aborts.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

namespace {

bool is_directory(const std::string &path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool is_regular(const std::string &path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

void collect(const std::string &arg, std::vector<std::string> &files) {
    if (!is_directory(arg)) {
        files.push_back(arg);
        return;
    }
    std::vector<std::string> found;
    if (DIR *dir = ::opendir(arg.c_str())) {
        while (const dirent *entry = ::readdir(dir)) {
            const std::string path = arg + "/" + entry->d_name;
            if (entry->d_name[0] != '.' && is_regular(path)) found.push_back(path);
        }
        ::closedir(dir);
    }
    std::sort(found.begin(), found.end());
    files.insert(files.end(), found.begin(), found.end());
}

}  // namespace

int main(int argc, char **argv) {
    if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) collect(argv[i], files);
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
