/*
 * Runs a fuzz harness without libFuzzer: every file in the folders named
 * on the command line is one input.  The ordinary builds (plain and
 * sanitized) replay the checked-in corpora this way, so an input that once
 * broke a parser keeps being tried.
 */
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv)
{
    size_t replayed = 0;
    for (int i = 1; i < argc; i++)
        for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
            std::ifstream in(entry.path(), std::ios::binary);
            if (!in) {
                fprintf(stderr, "cannot read %s\n", entry.path().c_str());
                return 1;
            }
            std::string bytes((std::istreambuf_iterator<char>(in)),
                              std::istreambuf_iterator<char>());
            // A copy of exactly the input's size, so that AddressSanitizer
            // sees a read past its end as libFuzzer's own buffer would show.
            std::vector<uint8_t> input(bytes.begin(), bytes.end());
            LLVMFuzzerTestOneInput(input.data(), input.size());
            replayed++;
        }
    if (replayed == 0) {
        fprintf(stderr, "usage: %s FOLDER...: no input found\n", argv[0]);
        return 2;
    }
    printf("replayed %zu inputs\n", replayed);
    return 0;
}
