/*
 * What local time means in this process, as a record that can be kept and sent: the zone's offset and names, whether it
 * has daylight time and whether that is in force, and the two moments of a year at which its clocks change.
 *
 *     clnt_tz_info_t *zone;
 *     clnt_tz_date_t change;
 *     if (clnt_tz_get_info(2026, &zone) == CLNT_TZ_OK) {
 *         if (clnt_tz_dt_trans(zone, &change) == CLNT_TZ_OK)
 *             printf("clocks go forward on day %d of month %d\n", change.mday, change.month + 1);
 *         clnt_tz_free_info(&zone);
 *     }
 *
 * Offset, names and whether there is daylight time come from the C library as it has them at the call; where a zone's
 * past differs from its present, that depends on what else the process has converted. The moments come from the value
 * of the environment variable TZ: from the zone file of that name below /usr/share/zoneinfo/, or from a rule that it
 * spells.
 *
 * Such a rule is a name and an offset, "EST5"; where there is daylight time, its name and offset and the dates of the
 * changes to it and from it follow: "EST5EDT4,M4.1.1/2,M10.1.5/2". A date is month, day of the week and week of the
 * month: months and days count from 1 (1 is Sunday), week 5 is the last. Note that day and week stand the other way
 * round than in POSIX, and that the short forms of POSIX have no moments here.
 *
 * clnt_tz_get_info may be called from any thread; it calls tzset, and its callers wait for each other. All other
 * operations touch nothing but their arguments.
 */
#ifndef VELIAXDR_CLNT_TIMEZONE_H
#define VELIAXDR_CLNT_TIMEZONE_H

#include <stdint.h>
#include <stdio.h>
#include <time.h>

#include <rpc/rpc.h>

#include <support/imsg.h>
#include <support/tbs.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef enum clnt_tz_status {
    CLNT_TZ_OK = 0,
    CLNT_TZ_ERROR = 1,
    CLNT_TZ_BAD_VERSION = 2,
    CLNT_TZ_INVALID = 3, /* the record says that it does not hold this */
} clnt_tz_status_t;

/* The version that clnt_tz_get_info writes. */
enum { CLNT_TZ_VERSION = 1 };

/* Bits of a record's flags. */
enum {
    CLNT_TZ_OFFSET = 1,
    CLNT_TZ_BIAS = 2,
    CLNT_TZ_DT_DEFINED = 4, /* the zone has daylight time */
    CLNT_TZ_DAYLIGHT = 8,   /* daylight time was in force at the call */
    CLNT_TZ_ST_NAME = 16,
    CLNT_TZ_DT_NAME = 32,
    CLNT_TZ_ST_TRANS = 64,
    CLNT_TZ_DT_TRANS = 128,
};

/* Size of a name, the terminator included. */
enum { CLNT_TZ_NAME_SIZE = 64 };

/* The years for which there is a record. */
enum { CLNT_TZ_YEAR_FIRST = 1971, CLNT_TZ_YEAR_LAST = 2037 };

/* What the clock on the wall shows just before it is changed; the fields are those of the C library's struct tm. */
typedef struct clnt_tz_date {
    int32_t year; /* since 1900 */
    int32_t month;
    int32_t mday;
    int32_t wday;
    int32_t hour;
    int32_t min;
    int32_t sec;
} clnt_tz_date_t;

/* Plain data without pointers: a copy is a copy. Fields without their flag are zero or empty. */
typedef struct clnt_tz_info {
    int32_t version;
    uint32_t flags;
    time_t offset; /* minutes west of UTC of standard time */
    time_t bias;   /* minutes by which daylight time differs from it: -60, or 0 where there is none */
    char st_name[CLNT_TZ_NAME_SIZE];
    char dt_name[CLNT_TZ_NAME_SIZE];
    clnt_tz_date_t st_trans; /* the change to standard time */
    clnt_tz_date_t dt_trans; /* the change to daylight time */
} clnt_tz_info_t;

/*
 * Stores in `*info` (out) a new record of this process's zone in `year`, counted as usual, which the caller gives back
 * by clnt_tz_free_info. CLNT_TZ_INVALID, with null, for a year outside CLNT_TZ_YEAR_FIRST to CLNT_TZ_YEAR_LAST;
 * CLNT_TZ_ERROR, with null, without memory, and for a null `info`. After CLNT_TZ_ERROR for want of memory other threads
 * that call this wait for ever.
 *
 * A zone whose moments cannot be had is no failure: the record comes without them. Warnings are printed (severity 4) if
 * TZ is not set or without memory, each once until that is cured; and, at each call, if its zone file cannot be read,
 * is not a regular file or has more than 16 MiB. That a zone file or rule has been read is printed, too (severity 0),
 * and happens only when the value of TZ or the file's modification time has changed; else a call costs one stat of the
 * file, and never waits for the network or at a pipe.
 *
 * Of a zone file the part with 32-bit times is read. One that has its changes only behind it, with 64-bit times, as
 * "slim" zone files have, is read as one without changes, and that is told with the reading (severity 4).
 */
clnt_tz_status_t clnt_tz_get_info(int year, clnt_tz_info_t **info);

/* A new record, all zero; null without memory. */
clnt_tz_info_t *clnt_tz_new_info(void);

/* Frees the record in `*info` and stores null there. Null, or a null in it, is ignored. */
void clnt_tz_free_info(clnt_tz_info_t **info);

/* Copies `source` to `target`, names only where the source's flags say that they are valid. CLNT_TZ_ERROR for a null.
 */
clnt_tz_status_t clnt_tz_copy(const clnt_tz_info_t *source, clnt_tz_info_t *target);

/*
 * Each stores one thing of the record in its out argument. CLNT_TZ_ERROR for a null, with nothing stored.
 * CLNT_TZ_INVALID if the record does not hold it: a number is then 0, a name the empty text, and a date is left as it
 * was. The two questions are always answered, by 0 or 1. Buffers of names have CLNT_TZ_NAME_SIZE bytes.
 */
clnt_tz_status_t clnt_tz_offset(const clnt_tz_info_t *info, time_t *minutes);
clnt_tz_status_t clnt_tz_bias(const clnt_tz_info_t *info, time_t *minutes);
clnt_tz_status_t clnt_tz_dt_defined(const clnt_tz_info_t *info, tbs_boolean_t *is_defined);
clnt_tz_status_t clnt_tz_daylight(const clnt_tz_info_t *info, tbs_boolean_t *is_in_force);
clnt_tz_status_t clnt_tz_st_name(const clnt_tz_info_t *info, char *name);
clnt_tz_status_t clnt_tz_dt_name(const clnt_tz_info_t *info, char *name);
clnt_tz_status_t clnt_tz_st_trans(const clnt_tz_info_t *info, clnt_tz_date_t *date);
clnt_tz_status_t clnt_tz_dt_trans(const clnt_tz_info_t *info, clnt_tz_date_t *date);

/* Prints what the status means: failures as errors, the others as plain output. */
void clnt_tz_status_msg(clnt_tz_status_t status);

/* A time of the day, or an offset. */
typedef struct clnt_tz_tod {
    int32_t hours;
    int32_t minutes;
    int32_t seconds;
} clnt_tz_tod_t;

/*
 * Reads "hours", "hours:minutes" or "hours:minutes:seconds" at the start of `text` into `*time` (out; what is absent is
 * zero). Each number is decimal, may have white space and a sign before it, and is held to 32 bits. Returns how many
 * characters were used; 0 for a null, or if the text does not begin with a number.
 */
int tod_from_str(const char *text, clnt_tz_tod_t *time);

/*
 * The wire form: the fields in their order. A name that does not fit its field does not decode, nor encode if it has no
 * terminator. Nothing is allocated, and nothing is to be freed.
 */
bool_t xdr_clnt_tz_date_t(XDR *xdrs, clnt_tz_date_t *date);
bool_t xdr_clnt_tz_info_t(XDR *xdrs, clnt_tz_info_t *info);

extern const imsg_table_t _clnt_timezone_rvzd_msg_table;

/* Positions in _clnt_timezone_rvzd_msg_table. */
enum {
    CLNT_TZ_MSG_SUCCESS = 0,
    CLNT_TZ_MSG_ERROR = 1,
    CLNT_TZ_MSG_BAD_VERSION = 2,
    CLNT_TZ_MSG_INVALID = 3,
    CLNT_TZ_MSG_UNKNOWN_STATUS = 4,
    CLNT_TZ_MSG_REFRESHED_FROM_DATA = 6,
    CLNT_TZ_MSG_REFRESHED_FROM_RULE = 7,
    CLNT_TZ_MSG_NOT_SET = 8,
    CLNT_TZ_MSG_NO_MEMORY = 9,
    CLNT_TZ_MSG_NULL_PATH = 11,
    CLNT_TZ_MSG_CANNOT_OPEN = 12,
};

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
