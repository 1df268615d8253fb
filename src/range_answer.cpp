/*
 * Judging an answer to a ranged GET (range_answer.h).
 */
#include <stdio.h>

#include <algorithm>

/* Generic errors from here name their source by this short name. */
#undef TARVEX_BOX_SOURCE /* a unity build's previous file */
#define TARVEX_BOX_SOURCE "send"
#include "range_answer.h"
#include "request.h"

namespace {

void judge(tarvex_box_range_answer *answer)
{
    answer->judged = true;
    int status = answer->request->response.response_code;
    if (status == 206) {
        const char *value = tarvex_box_request_header(answer->request, "Content-Range");
        long long first = -1, last = -1, total = -1;
        int fields = value != nullptr ? sscanf(value, "bytes %lld-%lld/%lld", &first, &last,
                                               &total)
                                      : 0;
        if (fields < 1 || first != static_cast<long long>(answer->asked_from)) {
            answer->refusal = "Box's partial answer does not start at the byte asked for.";
            return;
        }
        if (fields == 3)
            answer->total = total;
    } else if (status == 200) {
        answer->skip = static_cast<uint64_t>(answer->asked_from);
    } else {
        return;
    }
    answer->usable = true;
    answer->left = answer->wanted;
}

} // namespace

void tarvex_box_range_answer::reset(tarvex_off_t from, tarvex_off_t count)
{
    asked_from = from;
    wanted = count;
    judged = usable = false;
    skip = 0;
    left = -1;
    refusal = nullptr;
    total = -1;
    received = 0;
}

tarvex_result_t tarvex_box_range_answer::take(const char **data, size_t *length)
{
    if (!judged)
        judge(this);
    received += *length;
    if (refusal != nullptr)
        return TARVEX_BOX_GENERIC_ERROR("%s", refusal); /* ends the exchange */
    if (!usable) {
        *length = 0;
        return TARVEX_SUCCESS;
    }
    size_t skipped = static_cast<size_t>(std::min<uint64_t>(skip, *length));
    skip -= skipped;
    *data += skipped;
    *length -= skipped;
    if (left >= 0) {
        *length = static_cast<size_t>(std::min<tarvex_off_t>(left,
                                                             static_cast<tarvex_off_t>(*length)));
        left -= static_cast<tarvex_off_t>(*length);
    }
    return TARVEX_SUCCESS;
}
