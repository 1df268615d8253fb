/*
 * One answer to a ranged GET of a file's download link, judged at its first
 * byte, so that only the range's own bytes go on and each lands in place:
 * a 206 must start at the byte asked for (else its bytes would land out of
 * place); a 200 is the whole file, so the bytes before the range are
 * skipped.  Either way no more than the range goes on.  Any other answer's
 * body is an error page, no part of the file: nothing of it goes on, and
 * its status fails the request.
 */
#ifndef TARVEX_BOX_RANGE_ANSWER_H
#define TARVEX_BOX_RANGE_ANSWER_H

#include <stddef.h>
#include <stdint.h>

#include "tarvex_box_common.h"

struct tarvex_box_range_answer {
    /* The answer being read; its wanted headers include "Content-Range". */
    const tarvex_box_request_t *request = nullptr;
    tarvex_off_t asked_from = 0; /* the first byte the request asks for */
    tarvex_off_t wanted = -1;    /* bytes wanted from there; negative: all */
    bool judged = false;
    bool usable = false;         /* 200, or a 206 from the first byte asked for */
    uint64_t skip = 0;           /* bytes of a whole-file answer before the range */
    tarvex_off_t left = -1;      /* bytes the range still wants; negative: all */
    const char *refusal = nullptr; /* why the answer's body was refused, or none */
    /* The file's size as a 206's "Content-Range" gives it; -1 unknown. */
    long long total = -1;
    /* Body bytes of the answer so far, the refused and skipped ones too. */
    uint64_t received = 0;

    /* Before each attempt: what it asks for. */
    void reset(tarvex_off_t from, tarvex_off_t count);
    /* Narrows a piece of the answer's body to the range's bytes in it (none
     * at all for an answer that is not usable); an error when the answer is
     * refused, which ends the exchange. */
    tarvex_result_t take(const char **data, size_t *length);
};

#endif
