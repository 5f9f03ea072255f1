/*
 * The library's identity: version line and notice.
 *
 *     char line[LIBVELIAXDR_VERID_SIZE];
 *     if (libveliaxdr_sprintf_verid(line) >= 0)
 *         fputs(line, stdout);
 */
#ifndef VELIAXDR_LIBVELIAXDR_H
#define VELIAXDR_LIBVELIAXDR_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Least size of the buffer of libveliaxdr_sprintf_verid. */
enum { LIBVELIAXDR_VERID_SIZE = 128 };

/* Prints the version line at severity 0. */
void libveliaxdr_print_verid(void);

/* Writes the version line, with its newline, to a buffer of at least LIBVELIAXDR_VERID_SIZE bytes. Negative: failed. */
int libveliaxdr_sprintf_verid(char *buffer);

/* The notice: nine lines of the same width and a null pointer behind them. Constant. */
const char *const *libveliaxdr_copyright_array(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
