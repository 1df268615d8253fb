// Clocks, sleeping and UTC time formatting.
#include <cerrno>
#include <cstdio>

#include "tarvex_time.h"

namespace {

// Each caller hands strftime its own literal form, so that -Wformat=2 checks
// it; this does the rest.  Leaves the buffer empty, and says whether to go on.
bool utc_parts(time_t when, char *buffer, size_t size, struct tm *parts)
{
    if (buffer == nullptr || size == 0)
        return false;
    buffer[0] = '\0';
    return gmtime_r(&when, parts) != nullptr;
}

} // namespace

extern "C" {

void tarvex_time_wall(struct timespec *now)
{
    clock_gettime(CLOCK_REALTIME, now);
}

int64_t tarvex_time_monotonic_usec(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

void tarvex_time_sleep_usec(int64_t usec)
{
    if (usec <= 0)
        return;
    struct timespec left;
    left.tv_sec = static_cast<time_t>(usec / 1000000);
    left.tv_nsec = static_cast<long>(usec % 1000000) * 1000;
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

char *tarvex_time_format_utc(time_t when, char *buffer, size_t size)
{
    struct tm parts;
    if (utc_parts(when, buffer, size, &parts) &&
        strftime(buffer, size, "%Y-%m-%dT%H:%M:%SZ", &parts) == 0)
        buffer[0] = '\0';
    return buffer;
}

char *tarvex_time_format_ftp(time_t when, char *buffer, size_t size)
{
    struct tm parts;
    if (utc_parts(when, buffer, size, &parts) &&
        strftime(buffer, size, "%Y%m%d%H%M%S", &parts) == 0)
        buffer[0] = '\0';
    return buffer;
}

} // extern "C"
