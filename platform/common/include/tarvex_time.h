#ifndef TARVEX_TIME_H
#define TARVEX_TIME_H

#include <time.h>

#include "tarvex_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Wall clock, seconds and nanoseconds since the epoch. */
TARVEX_API void tarvex_time_wall(struct timespec *now);
/* Monotonic clock in microseconds (for measuring intervals). */
TARVEX_API int64_t tarvex_time_monotonic_usec(void);
/* Sleeps for the given time, resuming after signals. */
TARVEX_API void tarvex_time_sleep_usec(int64_t usec);
/* Formats `when` in UTC as "YYYY-MM-DDTHH:MM:SSZ" into `buffer` (at least
 * 21 bytes).  Returns `buffer`. */
TARVEX_API char *tarvex_time_format_utc(time_t when, char *buffer, size_t size);
/* Formats `when` in UTC as "YYYYMMDDHHMMSS" (FTP MDTM/MLST form). */
TARVEX_API char *tarvex_time_format_ftp(time_t when, char *buffer, size_t size);

#ifdef __cplusplus
}
#endif

#endif
