// Clocks, sleeping and UTC time formatting.
#include <cerrno>
#include <cstdio>

#include "tarvex_time.h"

namespace {

// `when` in UTC written by `write`, which calls strftime with the caller's
// own literal form (so that -Wformat=2 checks it); the buffer is left
// empty when the time cannot be written.
template <class Write>
char *format_utc(time_t when, char *buffer, size_t size, Write &&write)
{
    if (buffer == nullptr || size == 0)
        return buffer;
    buffer[0] = '\0';
    struct tm parts;
    if (gmtime_r(&when, &parts) != nullptr && write(&parts) == 0)
        buffer[0] = '\0';
    return buffer;
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
    return format_utc(when, buffer, size, [&](const struct tm *parts) {
        return strftime(buffer, size, "%Y-%m-%dT%H:%M:%SZ", parts);
    });
}

char *tarvex_time_format_ftp(time_t when, char *buffer, size_t size)
{
    return format_utc(when, buffer, size, [&](const struct tm *parts) {
        return strftime(buffer, size, "%Y%m%d%H%M%S", parts);
    });
}

} // extern "C"
