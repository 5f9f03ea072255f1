/*
 * Bounded copies, joins and searches of strings, sets of flags, and whole files as texts.
 *
 *     char path[1024];
 *     if (strutl_concat(path, sizeof path, 3, directory, "/", text) != 0)
 *         return TBS_ST_NAME_TOO_LONG;
 *
 * Positions are byte offsets from the start of the text; `position` arguments are out, may be null, and are written
 * only when something was found. All operations may be called from any thread, and print nothing but what is told
 * below.
 */
#ifndef VELIA_SUPPORT_STRUTL_H
#define VELIA_SUPPORT_STRUTL_H

#include <stddef.h>
#include <stdint.h>

#include <support/stg.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * Joins `count` strings (nulls count as empty) in `destination` of `size` bytes. The first string, and no other, may be
 * `destination` itself: then the others are appended. Returns 0, or non-zero if the text with its terminator does not
 * fit; the destination then is as it was if it was the first string, else the empty text.
 */
int strutl_concat(char *destination, size_t size, int count, ...);

/* The joined text on the heap (stg_free), or in an area; null without memory. */
char *strutl_concat_heap(int count, ...);
char *strutl_concat_area(stg_area_t area, int count, ...);

/* Non-zero means truncated; the destination is always terminated. A size of 0 writes nothing and is truncation. */
int strutl_cpy_buf(char *destination, const char *source, size_t size);
int strutl_snprintf(char *destination, size_t size, const char *format, ...) __attribute__((format(printf, 3, 4)));

/*
 * Copies up to `length` characters of `source` and a terminator to `destination`, which has room for length + 1 bytes,
 * and returns `destination`.
 */
char *strutl_ncpy(char *destination, const char *source, size_t length);

/* Case-blind comparison: below 0, 0 if equal, or above 0. A null is the empty text. */
int strutl_stricoll(const char *left, const char *right);

/* 0 if `text` begins with `prefix`, case counting; `*end` (out, may be null) is then what follows. Else non-zero. */
int strutl_match_prefix(const char *text, const char *prefix, const char **end);

/* The character value that stands for a separator of path names. */
enum { STRUTL_PATH_SEPARATOR = -1 };

/*
 * Searches from position `start` on; non-zero if found. In this order: the first place of a character, the first place
 * of any character of a set, the last place of a character at or behind `start`, the first place of a string. `wanted`
 * is a character or STRUTL_PATH_SEPARATOR. A `start` behind the end finds nothing; an empty string is found at once.
 */
int strutl_find_char(const char *text, size_t start, int wanted, size_t *position);
int strutl_find_char_from(const char *text, size_t start, const char *wanted_set, size_t *position);
int strutl_find_last_char(const char *text, size_t start, int wanted, size_t *position);
int strutl_find_str(const char *text, size_t start, const char *wanted, size_t *position);

/*
 * Replaces every place of `wanted` at or behind `start` by `replacement` and stores the new text, on the heap, in
 * `*result`. Non-zero if there was one; else, or without memory, or for an empty `wanted`, 0 and null in `*result`.
 */
int strutl_find_replace_substr(const char *text, size_t start, const char *wanted, const char *replacement,
                               char **result);

/*
 * The next token of `text`, which is cut up in place, or with a null `text` of the one before; null at the end. The
 * place reached is kept per thread, so one text a thread can be in progress.
 */
char *strutl_tokenize(char *text, const char *separators);

/* Takes white space off the ends of `text` in place: the front if `leading`, the back if `trailing`. Returns `text`. */
char *strutl_strip_whitespace(char *text, int leading, int trailing);

/* One name of a set of flags. Names of tables are constants; those of decoded items are on the heap. */
typedef struct strutl_flag_item {
    const char *name;
    uint32_t value;
} strutl_flag_item_t;

/*
 * The mask of a list of names, each stripped of white space and compared without case, separated by the characters of
 * `separators`. A number in the form 0x1f stands for its bits. 0 for a text that names none, or one that is not in the
 * table: `*position` (out, may be null) is then where that name begins, else the length of the text. `reserved` is 0.
 */
uint32_t strutl_flags_from_str(const char *text, int reserved, const char *separators, const strutl_flag_item_t *table,
                               size_t count, size_t *position);

/*
 * The names of the bits of `mask`, in the order of the table, joined by `separator`; bits without a name follow as a
 * number. A mask of 0 reads as the name that the table gives to 0, else empty. Not to be freed; lives until the same
 * thread has asked four times more, or null without memory.
 */
const char *strutl_flags_to_str(uint32_t mask, const char *separator, const strutl_flag_item_t *table, size_t count);

/*
 * Reads a decimal number with an optional sign and white space around it into `*result`. With `flag` set a suffix k, m
 * or g in either case multiplies by 1024, its square or its cube. 0 on success; non-zero with `*result` untouched for
 * anything else, also for a value that 64 bits do not hold.
 */
int strutl_kstr_or_str_to_long(const char *text, int64_t *result, int flag);

/* What strutl_read reads at most. */
enum { STRUTL_READ_MAX = 1024 * 1024 };

/*
 * The contents of the file `path` as one heap text (stg_free), null with errno set on failure, which is EFBIG for a
 * file of more than STRUTL_READ_MAX bytes, EISDIR for a directory and EINVAL for what else is no regular file, which is
 * never waited for; these are printed as errors, too. `file_count` is 1, `reserved` 0, `as_one_text` 1; anything else
 * is EINVAL.
 * `*length` (out, may be null) is the number of bytes, which tells of zero bytes inside.
 */
char *strutl_read(int file_count, const char *path, int reserved, int as_one_text, size_t *length);

/*
 * Makes `text` the contents of the file `path`, which is made if need be and else rewritten in place, with nothing
 * added, and puts it on disk. 0, or the errno value, which errno holds, too: ENXIO for a pipe that nobody reads from.
 * `reserved1` and `reserved2` are 0.
 */
int strutl_write(const char *text, const char *path, int reserved1, int reserved2);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
