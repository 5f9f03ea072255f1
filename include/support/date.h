/*
 * The clock, and dates as text.
 */
#ifndef VELIA_SUPPORT_DATE_H
#define VELIA_SUPPORT_DATE_H

#include <sys/time.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

const char *date_fmt_token_date(time_t time);
const char *date_fmt_token_date_time(time_t time);
int date_str_to_time(const char *text, time_t *time);
struct tm *date_get_localtime(const time_t *time, struct tm *result);
struct tm *date_get_gmtime(const time_t *time, struct tm *result);
void date_get_timeval(struct timeval *now);

#ifdef __cplusplus
}
#endif
#endif
