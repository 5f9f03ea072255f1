/*
 * Words of a command line: reading flags and arguments one by one, splitting a text into words, joining words.
 *
 * Words are separated by white space. Within double or single quotes white space belongs to the word; outside single
 * quotes a backslash takes the next character as it is. A pair of quotes with nothing between is an empty word.
 *
 *     static const clp_flag_t flags[] = {{"-no_servers"}, {NULL}};
 *     clp_hdl_t parser = clp_create_hdl_using_string(text, flags, area);
 *     int index;
 *     while (clp_get_next_flag_value(parser, 1, &index) == CLP_FLAG)
 *         note(index);
 *     clp_destroy_hdl(&parser);
 *
 * A parser belongs to one thread at a time. Nothing is printed.
 */
#ifndef VELIA_SUPPORT_CLP_H
#define VELIA_SUPPORT_CLP_H

#include <stddef.h>
#include <stdint.h>

#include <support/stg.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct clp_hdl *clp_hdl_t;

/* A row of a flag table, which ends with a null name. Names are whole words, "-" included, and case counts. */
typedef struct clp_flag {
    const char *name;
} clp_flag_t;

/* What the next word is. */
enum {
    CLP_FLAG = 0,         /* a flag of the table; taken */
    CLP_ARGUMENT = 1,     /* an argument; taken, and clp_unget_arg puts it back */
    CLP_UNKNOWN_FLAG = 2, /* begins with "-", has more behind it, and is not in the table; not taken */
    CLP_END = 3,          /* there is none */
};

/*
 * A parser over the words of `text`. It and its words live in `area` (STG_HEAP_AREA: on the heap, until it is
 * destroyed). `flags` must outlive it. Null for a quote that does not end, a backslash at the end, a null text, or
 * without memory.
 */
clp_hdl_t clp_create_hdl_using_string(const char *text, const clp_flag_t *flags, stg_area_t area);

/* What the next word is; for CLP_FLAG `*index` (out) is its row. `reserved` is 1. */
int clp_get_next_flag_value(clp_hdl_t parser, int reserved, int *index);

/* Copies the flag that was taken last to `buffer` of `size` bytes; 0, non-zero if there is none or it does not fit. */
int clp_get_last_flag_name(clp_hdl_t parser, int reserved, size_t size, char *buffer);

/* Takes the next word, whatever it is, and stores it in `*argument`; 0, non-zero at the end. The text is the parser's.
 */
int clp_get_next_arg(clp_hdl_t parser, char **argument);

/* Puts the word taken last back; at the first word nothing happens. */
void clp_unget_arg(clp_hdl_t parser);

/* Ends the parser in `*parser` and clears it. Null, or a null in it, is ignored. */
void clp_destroy_hdl(clp_hdl_t *parser);

/*
 * Splits `text` into `*count` words, each on the heap, in the heap array `*vector` (null for no words), or all in
 * `area` if that is neither null nor STG_HEAP_AREA. `reserved` is 1. Returns 0; non-zero, with 0 and null, for a quote
 * that does not end, a backslash at the end, or without memory: `*error_position` (out, may be null) is then the
 * offset at which that word begins.
 */
int clp_parse_string(const char *text, int reserved, uint32_t *count, char ***vector, size_t *error_position,
                     stg_area_t area);

/*
 * Joins `count` words by blanks into one heap text in `*text` that clp_parse_string splits into the same words, with
 * `escape` (a backslash for that) in front of quotes and of itself. `reserved` is 1. Returns 0; non-zero, with null,
 * for a word with a line feed, which no line of a file can hold, for a null word, or without memory.
 */
int clp_argv_to_string(uint32_t count, char *const *vector, int reserved, int escape, char **text);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
