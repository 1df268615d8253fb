/*
 * What every fuzz harness shares: a failed result rendered the way a client
 * would read it and then released, and the checks that stop a run
 * (libFuzzer keeps the input that stopped it).  The runtime needs no
 * activation: its tables build themselves on first use.
 *
 * A harness defines LLVMFuzzerTestOneInput only (set-up it needs is made on
 * first use: the replay's main() calls nothing else).  Built with
 * TARVEX_FUZZ it is a libFuzzer program; otherwise (TARVEX_FUZZ_REPLAY)
 * the main() below runs it over the files of the folders named on its
 * command line.  The ordinary builds (plain and sanitized) replay the
 * checked-in corpora this way, so an input that once broke a parser keeps
 * being tried.
 */
#ifndef TARVEX_FUZZ_SUPPORT_H
#define TARVEX_FUZZ_SUPPORT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "tarvex_common.h"
#include "tarvex_gridftp_server.h"

namespace tarvex_fuzz {

/* Ends the run unless `ok`: the input broke a rule that holds for every
 * input. */
inline void check(bool ok, const char *what, std::string_view detail = {})
{
    if (ok)
        return;
    fprintf(stderr, "fuzz check failed: %s%s%s\n", what, detail.empty() ? "" : ": ",
            std::string(detail).c_str());
    abort();
}

/* The input as text. */
inline std::string_view as_text(const uint8_t *data, size_t size)
{
    return {reinterpret_cast<const char *>(data), size};
}

/* `text` cut at each `separator` into at most `count` fields; the last
 * keeps the rest, separators and all. */
inline std::vector<std::string> split(std::string_view text, char separator,
                                      size_t count = SIZE_MAX)
{
    std::vector<std::string> fields;
    size_t start = 0;
    while (fields.size() + 1 < count) {
        size_t end = text.find(separator, start);
        if (end == std::string_view::npos)
            break;
        fields.emplace_back(text.substr(start, end - start));
        start = end + 1;
    }
    fields.emplace_back(text.substr(start));
    return fields;
}

/* An FTP reply as the server sends it: one or more lines "CCC-text" and a
 * last "CCC text", each ending in CR LF, one code throughout and no control
 * byte inside a line.  Parsers put text from remote services and from
 * clients into error messages; none of it may break the reply's frame. */
inline void check_ftp_reply(const char *reply)
{
    check(reply != nullptr, "no FTP reply for a failed result");
    std::string_view rest(reply);
    std::string_view code;
    while (!rest.empty()) {
        size_t end = rest.find("\r\n");
        check(end != std::string_view::npos, "reply line without CR LF", reply);
        std::string_view line = rest.substr(0, end);
        rest.remove_prefix(end + 2);
        check(line.size() >= 4 && line[0] >= '1' && line[0] <= '5' &&
                  line.find_first_not_of("0123456789") == 3,
              "reply line without a code", reply);
        if (code.empty())
            code = line.substr(0, 3);
        check(line.substr(0, 3) == code, "reply lines with different codes", reply);
        check(line[3] == (rest.empty() ? ' ' : '-'), "reply line with a wrong separator",
              reply);
        for (unsigned char c : line)
            check(c >= 0x20 && c != 0x7f && c != 0xff, "control byte in a reply line", reply);
    }
    check(!code.empty(), "empty FTP reply");
}

/* Renders a failed result as the client's reply and as the printed cause
 * chain, then takes the error out of the table and frees it. */
inline void release(tarvex_result_t result)
{
    if (result == TARVEX_SUCCESS)
        return;
    char *reply = tarvex_gfs_error_to_ftp_reply(result, 0);
    check_ftp_reply(reply);
    free(reply);
    tarvex_object_t *error = tarvex_error_get(result);
    check(error != nullptr, "a failed result that names no error in the table");
    free(tarvex_error_print_chain(error));
    tarvex_object_free(error);
}

/* An input must not leave errors behind: in a long-lived server the table
 * would evict them silently and their memory would never be seen as lost. */
inline void check_error_table_empty()
{
    size_t count = tarvex_error_table_count();
    check(count == 0, "errors left in the runtime's error table", std::to_string(count));
}

} // namespace tarvex_fuzz

#ifdef TARVEX_FUZZ_REPLAY
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
            // A copy of exactly the input's size, so that AddressSanitizer
            // sees a read past its end as libFuzzer's own buffer would show.
            std::vector<uint8_t> input((std::istreambuf_iterator<char>(in)),
                                       std::istreambuf_iterator<char>());
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
#endif

#endif
