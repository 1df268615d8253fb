/*
 * The shape every Box call shares: bearer authorisation, "Retry-After"
 * always the first wanted header, JSON in and out through the REST
 * client's stock callbacks, the idle time-out, pacing before each attempt,
 * a bounded number of attempts, and translation of Box's error answers.
 */
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <new>
#include <string>
#include <vector>

#include "box_metrics.h"
#include "config.h"
#include "origin.h"
#include "request.h"
#include "retry.h"
#include "session_journal.h"
#include "tarvex_box_common.h"
#include "tarvex_box_raii.h"
#include "token.h"
#include "translate_response.h"

namespace {

unsigned debug_level()
{
    return tarvex_i_box_debug_level_names[TARVEX_BOX_DEBUG] ? TARVEX_BOX_DEBUG
                                                            : TARVEX_BOX_TRACE;
}

/* "Retry-After" first, then the caller's names.  The keys are borrowed;
 * the client fills allocated values. */
bool set_wanted_headers(tarvex_box_request_t *request)
{
    size_t count = 1 + request->wanted_header_count;
    auto *wanted = new (std::nothrow) tarvex_dsi_rest_key_value_t[count]();
    if (wanted == nullptr)
        return false;
    wanted[0].key = "Retry-After";
    for (size_t i = 0; i < request->wanted_header_count; i++)
        wanted[i + 1].key = request->wanted_headers[i];
    request->response.desired_headers.count = count;
    request->response.desired_headers.key_value = wanted;
    return true;
}

/* Whether this attempt carries the user's token: only to the API and
 * upload origins the settings name, never with a URL that is its own
 * authorisation (whatever origin a redirect names). */
bool carries_token(const tarvex_box_session_t *box, const tarvex_box_request_t *request)
{
    return box != nullptr && !request->signed_url && tarvex_box_url_on_box_origin(request->url);
}

/* The request headers of one attempt: "Authorization" first (the token
 * may have been renewed since the last attempt), "Content-Type" for a
 * JSON body, then the caller's. */
struct attempt_headers {
    std::string authorization;
    std::vector<tarvex_dsi_rest_key_value_t> pairs;
    tarvex_dsi_rest_key_array_t array = {0, nullptr};

    attempt_headers(const tarvex_box_session_t *box, const tarvex_box_request_t *request)
    {
        if (carries_token(box, request)) {
            const char *token =
                request->access_token != nullptr ? request->access_token : box->access_token;
            authorization = "Bearer ";
            authorization += token != nullptr ? token : "";
            pairs.push_back({"Authorization", authorization.c_str()});
        }
        /* The trailing semicolon is what Box has always been sent. */
        if (request->json_body != nullptr)
            pairs.push_back({"Content-Type", "application/json;"});
        for (size_t i = 0; i < request->header_count; i++)
            pairs.push_back(request->headers[i]);
        array = {pairs.size(), pairs.data()};
    }
};

/* Whether an answer of `status` is one to take. */
bool taken(const tarvex_box_request_t *request, int status)
{
    if (request->success_statuses != nullptr) {
        for (size_t i = 0; i < request->success_status_count; i++)
            if (request->success_statuses[i] == status)
                return true;
        return false;
    }
    return request->expected_status != 0 ? status == request->expected_status : status < 400;
}

/* 451 for an answer of none of the statuses asked for (not retried). */
tarvex_result_t unexpected_status(const tarvex_box_request_t *request, bool *retry)
{
    *retry = false;
    return tarvex_error_put(tarvex_error_construct_error(
        nullptr, nullptr, TARVEX_GFS_ERROR_GENERIC, "request", "tarvex_box_request", __LINE__,
        "Box answered with HTTP status %d, which this request cannot use.",
        request->response.response_code));
}

/* Why a request was abandoned: the transfer it served ended without it. */
tarvex_result_t abandoned()
{
    return tarvex_error_put(tarvex_error_construct_error(
        nullptr, nullptr, TARVEX_GFS_ERROR_GENERIC, "request", "tarvex_box_request", __LINE__,
        "%s", "The transfer this request was part of has ended."));
}

/* The progress callback of a request that may be abandoned: the stock idle
 * time-out (and the operation's cancellation), then the caller's word. */
struct progress_watch {
    intptr_t timeout_ms;
    const tarvex_box_request_t *request;
};

tarvex_result_t watch_progress(void *arg, uint64_t read_expected, uint64_t read_so_far,
                               uint64_t write_expected, uint64_t written_so_far)
{
    auto *watch = static_cast<const progress_watch *>(arg);
    tarvex_result_t result = tarvex_dsi_rest_progress_idle_timeout(
        (void *)watch->timeout_ms, read_expected, read_so_far, write_expected, written_so_far);
    if (result == TARVEX_SUCCESS && watch->request->abandon(watch->request->abandon_arg))
        return abandoned();
    return result;
}

void clear_attempt(tarvex_box_request_t *request)
{
    tarvex_dsi_rest_response_arg_clear(&request->response);
    json_decref(request->json);
    request->json = nullptr;
}

/* One exchange.  Success: the answer is one to take (status below 400,
 * the expected status, or one the translation lets pass).  Failure: the
 * error, with *retry saying whether another attempt may help. */
tarvex_result_t attempt(tarvex_box_session_t *box, tarvex_box_request_t *request,
                        bool *retry, unsigned long *retry_after)
{
    /* Whatever named the URL, neither the token nor a signed link (as good
     * as a password for its file) goes out in the clear across a network. */
    bool token = carries_token(box, request);
    if ((token || request->signed_url) && !tarvex_box_url_may_carry_token(request->url))
        return tarvex_error_put(tarvex_error_construct_error(
            nullptr, nullptr, TARVEX_GFS_ERROR_GENERIC, "request", "tarvex_box_request",
            __LINE__, "Refusing to send %s to %s: only https, or plain http to a loopback "
            "address.", token ? "the Box credential" : "a signed download link",
            tarvex_box_origin(request->url).c_str()));
    attempt_headers headers(box, request);

    tarvex_dsi_rest_callbacks_t callbacks = {};
    callbacks.response_callback = tarvex_dsi_rest_response;
    callbacks.response_callback_arg = &request->response;
    if (request->json_body != nullptr) {
        callbacks.data_write_callback = tarvex_dsi_rest_write_json;
        callbacks.data_write_callback_arg = request->json_body;
    } else {
        callbacks.data_write_callback = request->write_callback;
        callbacks.data_write_callback_arg = request->write_callback_arg;
    }
    if (request->read_callback != nullptr) {
        callbacks.data_read_callback = request->read_callback;
        callbacks.data_read_callback_arg = request->read_callback_arg;
    } else {
        callbacks.data_read_callback = tarvex_dsi_rest_read_json;
        callbacks.data_read_callback_arg = &request->json;
    }
    int timeout_ms = request->progress_timeout_ms ? request->progress_timeout_ms
                                                  : tarvex_i_box_progress_timeout_ms;
    callbacks.progress_callback = tarvex_dsi_rest_progress_idle_timeout;
    /* The number itself travels as the argument, not a pointer to it. */
    callbacks.progress_callback_arg = (void *)(intptr_t)timeout_ms;
    progress_watch watch = {timeout_ms, request};
    if (request->abandon != nullptr) {
        callbacks.progress_callback = watch_progress;
        callbacks.progress_callback_arg = &watch;
    }

    tarvex_result_t result = tarvex_dsi_rest_request(request->method, request->url,
                                                     request->query, &headers.array,
                                                     &callbacks);
    if (result != TARVEX_SUCCESS) {
        /* A failure a new attempt may cure is one of the network (a
         * reset, a time-out, a cut answer): Box may have had the whole
         * request by then.  The rest (a callback's refusal, a TLS or
         * name failure) end the exchange before Box could act. */
        *retry = tarvex_dsi_rest_error_is_retryable(result);
        if (*retry)
            request->answers_lost++;
        return result;
    }

    int status = request->response.response_code;
    if (taken(request, status))
        return request->check_answer ? request->check_answer(request, retry, retry_after)
                                     : TARVEX_SUCCESS;
    /* Where only some statuses will do, no other passes: not one below
     * 400, nor one the translation lets pass (an unlisted 4xx). */
    bool strict = request->success_statuses != nullptr;
    if (strict && status < 400)
        return unexpected_status(request, retry);

    result = tarvex_box_translate_response(
        &request->response, request->translate_without_body ? nullptr : request->json,
        retry, retry_after);
    if (result == TARVEX_SUCCESS && strict)
        return unexpected_status(request, retry);
    if (result != TARVEX_SUCCESS && request->refusal_is_final && status >= 400)
        *retry = false;
    return result;
}

} // namespace

extern "C" tarvex_result_t tarvex_box_request(tarvex_box_session_t *box,
                                              tarvex_box_request_t *request)
{
    /* No entry or exit lines of its own: this is the attempt loop of the
     * calling operation, which traces its own way in and out. */
    tarvex_box_request_release(request);
    request->attempts_made = 0;
    request->answers_lost = 0;
    if (!set_wanted_headers(request))
        return TARVEX_BOX_MALLOC_ERROR();

    int budget = request->attempts > 0 ? request->attempts : 1;
    unsigned long retry_after = 0;
    tarvex_result_t result = TARVEX_SUCCESS;
    for (;;) {
        clear_attempt(request);
        bool retry = false;

        if (tarvex_i_TARVEX_BOX_debug_handle.levels & debug_level())
            tarvex_box_debug_line(debug_level(),
                                  request->caller ? request->caller : __func__,
                                  "API CALL!\n");
        if (request->refresh_token) {
            result = tarvex_box_token_refresh(box, request->op);
            if (result != TARVEX_SUCCESS)
                break;
        }
        if (!request->no_delay)
            tarvex_i_box_retry_delay(retry_after, request->retry);
        if (request->before_attempt != nullptr) {
            result = request->before_attempt(request, request->before_attempt_arg);
            if (result != TARVEX_SUCCESS)
                break;
        }
        if (request->abandon != nullptr && request->abandon(request->abandon_arg)) {
            result = abandoned();
            break;
        }

        request->attempts_made++;
        /* Anything but a GET may change Box: the command then tells the
         * user's other sessions (session_journal.h). */
        if (request->method != nullptr && strcmp(request->method, "GET") != 0)
            tarvex_box_journal_note_write(box);
        /* Only a translated answer says how long to wait; a transport
         * failure leaves the last answer's "Retry-After" in force.  The
         * attempt builds its headers as strings: out of memory it fails,
         * without a retry, instead of throwing into C callers. */
        result = tarvex_box_guarded([&] { return attempt(box, request, &retry, &retry_after); });
        tarvex_box_metric_attempt(request);
        if (result == TARVEX_SUCCESS)
            break;

        json_decref(request->json);
        request->json = nullptr;
        if (!retry || request->attempts_made >= budget)
            break;
        tarvex_error_discard(result);
    }
    return result;
}

extern "C" void tarvex_box_request_release(tarvex_box_request_t *request)
{
    tarvex_dsi_rest_response_arg_clear(&request->response);
    delete[] request->response.desired_headers.key_value;
    request->response.desired_headers.key_value = nullptr;
    request->response.desired_headers.count = 0;
    json_decref(request->json);
    request->json = nullptr;
}

extern "C" const char *tarvex_box_request_header(const tarvex_box_request_t *request,
                                                 const char *name)
{
    const tarvex_dsi_rest_key_array_t &wanted = request->response.desired_headers;
    for (size_t i = 0; i < wanted.count; i++)
        if (wanted.key_value[i].key != nullptr &&
            strcasecmp(wanted.key_value[i].key, name) == 0)
            return wanted.key_value[i].value;
    return nullptr;
}

tarvex_box_request_t tarvex_box_body_request(const char *method, const char *url,
                                             const tarvex_dsi_rest_key_value_t *headers,
                                             size_t header_count,
                                             tarvex_dsi_rest_write_block_arg_t *body,
                                             const tarvex_box_call &call)
{
    return {
        .method = method,
        .url = url,
        .headers = headers,
        .header_count = header_count,
        .write_callback = tarvex_dsi_rest_write_block,
        .write_callback_arg = body,
        .attempts = call.attempts,
        .retry = call.retry,
        .caller = call.caller,
    };
}
