/*
 * Pacing by the file of this host: under the pacing file's write lock a
 * process waits until the spacing has passed since the stamp of the last
 * request of any process that maps the record, stamps the time and lets
 * go.  Processes on other hosts are not seen.
 */
#include <stdint.h>
#include <sys/time.h>
#include <time.h>

#include "pacing.h"
#include "retry.h"
#include "tarvex_result.h"

namespace {

#define TARVEX_L_BOX_DEBUG(...) TARVEX_BOX_LOG(tarvex_box_pacing_debug_level(), __VA_ARGS__)

/* The wall clock at microsecond grain, as seconds and nanoseconds. */
void wall_clock(int64_t *sec, int64_t *nsec)
{
    struct timeval now;
    gettimeofday(&now, nullptr);
    *sec = now.tv_sec;
    *nsec = (int64_t)now.tv_usec * 1000;
}

/* A wait of a whole second or more is not a valid nanosleep request and
 * is therefore not taken. */
void sleep_usec(long long usec)
{
    struct timespec wait = {0, (long)(usec * 1000)};
    nanosleep(&wait, nullptr);
}

class file_pacing final : public tarvex_box_pacing_s {
public:
    tarvex_box_pacing_slot_t take_slot(tarvex_box_retry_t *retry) override;
};

tarvex_box_pacing_slot_t file_pacing::take_slot(tarvex_box_retry_t *retry)
{
    if (!tarvex::Result(tarvex_i_box_retry_state_lock(retry, true)).ok()) {
        TARVEX_L_BOX_DEBUG("sleep=%u lockfailed\n", retry->delay);
        sleep_usec(retry->delay);
        return {tarvex_box_pacing_slot_t::file, 0, retry->delay};
    }

    int64_t now_sec, now_nsec;
    wall_clock(&now_sec, &now_nsec);
    int64_t last_sec = retry->shared->last.tv_sec;
    int64_t last_nsec = retry->shared->last.tv_nsec;

    /* A stamp in the future counts like one in the past. */
    int64_t sec_diff = 0;
    int64_t usec_diff = 0;
    if (now_sec != last_sec || now_nsec != last_nsec) {
        bool now_later = now_sec > last_sec || (now_sec == last_sec && now_nsec > last_nsec);
        int64_t later_sec = now_later ? now_sec : last_sec;
        int64_t later_nsec = now_later ? now_nsec : last_nsec;
        int64_t earlier_sec = now_later ? last_sec : now_sec;
        int64_t earlier_nsec = now_later ? last_nsec : now_nsec;
        sec_diff = later_sec - earlier_sec;
        usec_diff = (later_nsec - earlier_nsec) / 1000;
        if (usec_diff < 0) {
            sec_diff -= 1;
            usec_diff += 1000000;
        }
    }
    unsigned wait = 0;
    if (sec_diff == 0 && (int64_t)retry->delay > usec_diff) {
        wait = (unsigned)((int64_t)retry->delay - usec_diff);
        sleep_usec(wait);
        TARVEX_L_BOX_DEBUG("sleep=%u\n", wait);
    }

    wall_clock(&retry->shared->last.tv_sec, &retry->shared->last.tv_nsec);
    /* Read while the lock still keeps everyone else from stamping. */
    const int64_t stamp_us =
        retry->shared->last.tv_sec * 1000000 + retry->shared->last.tv_nsec / 1000;
    tarvex_error_discard(tarvex_i_box_retry_state_unlock(retry));
    return {tarvex_box_pacing_slot_t::file, stamp_us, wait};
}

} // namespace

tarvex_box_pacing_s &tarvex_box_file_pacing()
{
    static file_pacing instance;
    return instance;
}
