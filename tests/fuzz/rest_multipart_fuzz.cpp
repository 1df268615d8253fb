/*
 * Multipart framing of the REST client: the boundary taken from the
 * request's Content-Type and the delimiter texts around each part with its
 * own header lines.  Part headers may carry names from a client (an
 * upload's file name), so no header may end a header block early or start
 * a line of its own.
 *
 * Input: NUL-separated fields: the Content-Type value, then the part
 * headers as key, value, key, value, ...; an empty key starts the next
 * part, up to max_parts parts (later empty keys are skipped).
 */
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "dsi_rest_internal.h"
#include "fuzz_support.h"

using namespace tarvex_fuzz;
using namespace tarvex_dsi_rest_internal;

namespace {

/* Bodies the client sends have two parts; a few more cover the framing
 * between parts.  Without a bound, runs of NUL bytes made bodies of
 * thousands of parts, whose writers are looked up one by one per call:
 * the harness spent most of its time there instead of on the framing. */
constexpr size_t max_parts = 8;

/* The lines of a delimiter text: each must end in CR LF, and no CR or LF
 * may stand anywhere else. */
std::vector<std::string> crlf_lines(const std::string &text)
{
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find("\r\n", start);
        check(end != std::string::npos, "delimiter text not ending in CR LF", text);
        std::string line = text.substr(start, end - start);
        check(line.find_first_of("\r\n") == std::string::npos, "bare CR or LF in a delimiter",
              text);
        lines.push_back(line);
        start = end + 2;
    }
    return lines;
}

/* The whole body as the request's write callback hands it to curl, in
 * pieces of changing sizes; false when the writer refused it. */
bool write_body(const std::string &content_type, tarvex_dsi_rest_multipart_arg_t *arg,
                std::string *body, std::optional<uint64_t> *announced)
{
    tarvex_dsi_rest_callbacks_t callbacks = {};
    callbacks.data_write_callback = tarvex_dsi_rest_write_multipart;
    callbacks.data_write_callback_arg = arg;
    RequestContext ctx("POST", "http://127.0.0.1/upload", &callbacks);
    ctx.content_type = content_type;
    *announced = multipart_length(ctx, arg);

    static const size_t piece_sizes[] = {1, 3, 17, 4096};
    char buffer[4096];
    for (size_t call = 0;; call++) {
        size_t length = piece_sizes[call % 4];
        size_t produced = 0;
        tarvex_result_t result = tarvex_dsi_rest_write_multipart(arg, buffer, length, &produced);
        if (result != TARVEX_SUCCESS) {
            release(result);
            return false;
        }
        check(produced <= length, "the writer overran its buffer");
        if (produced == 0)
            return true;
        body->append(buffer, produced);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::vector<std::string> fields = split(as_text(data, size), '\0');
    // A Content-Type with a line break never gets this far: the request's
    // headers are refused first.
    if (fields[0].find_first_of("\r\n") != std::string::npos)
        return 0;
    std::string boundary = boundary_of(fields[0]);
    if (boundary.empty())
        return 0;

    // Part headers: the strings live in `fields`, which no longer changes.
    std::vector<std::vector<tarvex_dsi_rest_key_value_t>> headers(1);
    for (size_t i = 1; i < fields.size(); i += 2) {
        if (fields[i].empty()) {
            if (headers.size() < max_parts)
                headers.emplace_back();
            i--; // the separator has no value
            continue;
        }
        const char *value = i + 1 < fields.size() ? fields[i + 1].c_str() : nullptr;
        headers.back().push_back({fields[i].c_str(), value});
    }
    // Each part's data is a block of its own; the last part has none.
    std::vector<std::string> contents(headers.size());
    std::vector<tarvex_dsi_rest_write_block_arg_t> blocks(headers.size());
    std::vector<tarvex_dsi_rest_write_part_t> parts(headers.size());
    for (size_t i = 0; i < parts.size(); i++) {
        parts[i].part_header = {headers[i].size(), headers[i].data()};
        if (i + 1 == parts.size())
            continue;
        contents[i] = "data of part " + std::to_string(i);
        blocks[i] = {contents[i].data(), contents[i].size()};
        parts[i].data_write_callback = tarvex_dsi_rest_write_block;
        parts[i].data_write_callback_arg = &blocks[i];
    }
    tarvex_dsi_rest_multipart_arg_t arg = {parts.size(), parts.data()};
    std::string expected_body;

    for (size_t index = 0; index <= parts.size(); index++) {
        std::string text = multipart_delimiter(boundary, &arg, index);
        expected_body += text;
        if (index < parts.size())
            expected_body += contents[index];
        std::string expected_start = (index == 0 ? "--" : "\r\n--") + boundary;
        check(text.compare(0, expected_start.size(), expected_start) == 0,
              "delimiter without its boundary", text);
        if (index > 0)
            text.erase(0, 2); // the line break that ends the part before
        std::vector<std::string> lines = crlf_lines(text);
        if (index == parts.size()) {
            check(lines.size() == 1 && lines[0] == "--" + boundary + "--",
                  "closing delimiter", text);
            continue;
        }
        // The boundary line, one line per header, and the blank line that
        // ends the header block: nothing blank before it.
        check(lines.size() >= 2 && lines.back().empty(), "header block not ended", text);
        for (size_t i = 0; i + 1 < lines.size(); i++)
            check(!lines[i].empty(), "a header ended the header block early", text);
        check(lines[0] == "--" + boundary, "boundary line", text);
        check(lines.size() - 2 <= headers[index].size(), "more header lines than headers",
              text);
    }

    // The body goes out as framed above, at the length announced for it,
    // unless a header would have broken the framing: then the writer
    // refuses it.
    bool framable = true;
    for (const auto &part : headers)
        for (const auto &pair : part)
            framable = framable && strpbrk(pair.key, "\r\n") == nullptr &&
                       (pair.value == nullptr || strpbrk(pair.value, "\r\n") == nullptr);
    std::string body;
    std::optional<uint64_t> announced;
    bool written = write_body(fields[0], &arg, &body, &announced);
    check(written == framable, framable ? "a framable body refused" : "an unframable body sent");
    if (written) {
        check(body == expected_body, "the body differs from its framing", body);
        check(announced == body.size(), "the body's length differs from the one announced");
    } else {
        check(!announced, "a length announced for a body that is refused");
    }
    check_error_table_empty();
    return 0;
}
