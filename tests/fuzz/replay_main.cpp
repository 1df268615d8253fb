/*
 * Runs a fuzz harness without libFuzzer: every file named on the command
 * line, and every file in every folder named there, is one input.  The
 * ordinary builds (plain and sanitized) replay the checked-in corpora this
 * way, so an input that once broke a parser keeps being tried.
 */
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

namespace {

bool replay(const std::filesystem::path &file)
{
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        fprintf(stderr, "cannot read %s\n", file.c_str());
        return false;
    }
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                            std::istreambuf_iterator<char>());
    // A copy of exactly the input's size, so that AddressSanitizer sees a
    // read past its end as libFuzzer's own buffer would show it.
    std::vector<uint8_t> input(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(input.data(), input.size());
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    if (LLVMFuzzerInitialize != nullptr)
        LLVMFuzzerInitialize(&argc, &argv);
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < argc; i++) {
        std::filesystem::path path(argv[i]);
        if (std::filesystem::is_directory(path)) {
            for (const auto &entry : std::filesystem::directory_iterator(path))
                if (entry.is_regular_file())
                    files.push_back(entry.path());
        } else {
            files.push_back(path);
        }
    }
    if (files.empty()) {
        fprintf(stderr, "usage: %s FILE|FOLDER...: no input found\n", argv[0]);
        return 2;
    }
    for (const auto &file : files)
        if (!replay(file))
            return 1;
    printf("replayed %zu inputs\n", files.size());
    return 0;
}
