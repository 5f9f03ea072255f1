/*
 * The clock, and dates as text.
 *
 *     time_t due;
 *     if (date_str_to_time("2024-05-28 13:33:43", &due))
 *         puts(date_fmt_token_date(due));
 *
 * A date reads "2024-05-28", a date and time "2024-05-28 13:33:43", both in the process's time zone. Years have four
 * digits or more. What one operation writes the other reads.
 */
#ifndef VELIA_SUPPORT_DATE_H
#define VELIA_SUPPORT_DATE_H

#include <sys/time.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * The text of a local date, and of a local date and time. Never null; a time that has no year reads as its number of
 * seconds behind an "@". Not to be freed: the text lives until the same thread has asked eight times more.
 */
const char *date_fmt_token_date(time_t time);
const char *date_fmt_token_date_time(time_t time);

/*
 * Reads one of the two forms, the "@" form, or "<now>", which is 1, and stores the time in `*time`; a date alone is its
 * midnight. Between date and time stands one blank or a "T". Returns non-zero on success; 0, with `*time` untouched,
 * for any other text, also for a day that the month does not have.
 */
int date_str_to_time(const char *text, time_t *time);

/* Break `*time` down as local time or as UTC into `*result`. Return `result`, null if the year does not fit. */
struct tm *date_get_localtime(const time_t *time, struct tm *result);
struct tm *date_get_gmtime(const time_t *time, struct tm *result);

/* The clock in seconds and microseconds since 1970. Cannot fail. */
void date_get_timeval(struct timeval *now);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
