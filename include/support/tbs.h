/*
 * Status values, identifiers and the layout of an installation.
 *
 * A tbs_status_t is what nearly every operation of the suite returns; results go through pointers.
 *
 *     char path[TBS_PATH_SIZE];
 *     tbs_status_t status = tbs_product_config_dir(path, "hosts.conf");
 *     if (status != TBS_ST_OK)
 *         imsg_print(IMSG_ERROR, &_tbs_cmsg_tbs_msg_table, TBS_MSG_OPERATION_FAILED, "config dir",
 *                    tbs_strerror(status));
 *
 * An installation lives below one root directory, VELIA_ROOT or else /var/lib/velia: config/ is shared by the site,
 * host/config, host/priv and host/data are this host's, log/ is for logs. All operations may be called from any thread.
 */
#ifndef VELIA_SUPPORT_TBS_H
#define VELIA_SUPPORT_TBS_H

#include <stddef.h>
#include <stdint.h>

#include <support/imsg.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef int32_t tbs_status_t;
typedef int32_t tbs_boolean_t;

enum {
    TBS_ST_OK = 0,
    TBS_ST_ERROR = 1001,
    TBS_ST_NOT_FOUND = 1002,
    TBS_ST_RPC_FAILED = 1004,
    TBS_ST_ALREADY_EXISTS = 1006,
    TBS_ST_UNSUPPORTED = 1007,
    TBS_ST_STALE_ID = 1026,
    TBS_ST_NO_SERVER = 1029,
    TBS_ST_TRY_AGAIN = 1031,
    TBS_ST_NO_PORT = 1035,
    TBS_ST_NOT_SET = 1052,
    TBS_ST_NO_MEMORY = 1062,
    TBS_ST_NO_ACCESS = 1063,
    TBS_ST_INVALID_ARG = 1072,
    TBS_ST_NO_STORAGE = 1078,
    TBS_ST_NAME_TOO_LONG = 1084,
};

/* 16 bytes, compared as bytes. */
typedef struct tbs_uuid {
    uint8_t bytes[16];
} tbs_uuid_t;

/* Least size of a buffer for tbs_uuid_to_str, the terminator included. */
enum { TBS_UUID_STR_SIZE = 48 };

/* The support layer's own message table. */
extern const imsg_table_t _tbs_cmsg_tbs_msg_table;

/* Its positions in use; each names the arguments of its text, all of them strings. */
enum {
    TBS_MSG_TEXT = 0,                   /* text, without a line's end */
    TBS_MSG_LINE = 1,                   /* text */
    TBS_MSG_FURTHER_LINE = 2,           /* text that goes on with what was printed before */
    TBS_MSG_CANNOT_OPEN = 18,           /* path, error */
    TBS_MSG_CANNOT_READ = 20,           /* path, error */
    TBS_MSG_INTERNAL_ERROR = 45,        /* none */
    TBS_MSG_OPERATION_FAILED = 46,      /* operation, error */
    TBS_MSG_HOST_OPERATION_FAILED = 47, /* operation, host, error */
    TBS_MSG_NO_OPTION_HANDLER = 100,    /* none */
};

/*
 * The text of a status, never null, not to be freed; it stays as long as the process. An unknown one is shown by its
 * number, unless more than a thousand of them have been asked for.
 */
const char *tbs_strerror(tbs_status_t status);

/* The status that matches an errno value; 0 gives TBS_ST_OK, a missing file TBS_ST_NOT_SET, the odd ones TBS_ST_ERROR.
 */
tbs_status_t tbs_errno2status(int error_number);

/*
 * Prints a message (see imsg_print_shared) as an error of the program itself, headed by the place in the source, and
 * returns. `reserved` is 0; the message's arguments follow.
 */
void tbs_log_int_error(const char *subsystem, const void *table_or_format, int index, const char *source_file, int line,
                       int reserved, ...);

/*
 * The text form is 8-4-4-4-12 lower-case hexadecimal digits in the order of the bytes. tbs_uuid_to_str writes it to
 * `buffer` of TBS_UUID_STR_SIZE bytes and returns `buffer`. tbs_str_to_uuid reads it in any case, also without the
 * dashes; anything else is TBS_ST_INVALID_ARG with `*uuid` untouched.
 */
char *tbs_uuid_to_str(const tbs_uuid_t *uuid, char *buffer);
tbs_status_t tbs_str_to_uuid(const char *text, tbs_uuid_t *uuid);

/* Non-zero if equal; below 0, 0 or above 0 for the order of the bytes. */
int tbs_uuid_eq(const tbs_uuid_t *left, const tbs_uuid_t *right);
int tbs_uuid_cmp(const tbs_uuid_t *left, const tbs_uuid_t *right);

/* Name and version of this installation, not to be freed. */
const char *tbs_product_name(void);
const char *tbs_product_version(void);

/*
 * For `component` 1 a mask of what is installed on this host; bit 0 is the server side, which is there unless the file
 * config/client_only exists. 0 for any other component.
 */
int tbs_product_comp_test(int component);

/*
 * Each writes the path of the file under its directory; the buffer holds at least TBS_PATH_SIZE bytes. A null
 * `file_name` gives the directory itself. TBS_ST_NAME_TOO_LONG, with the empty text, if the path does not fit. Nothing
 * is made or looked up.
 */
enum { TBS_PATH_SIZE = 1024 };
tbs_status_t tbs_product_config_dir(char *buffer, const char *file_name);
tbs_status_t tbs_product_host_config_dir(char *buffer, const char *file_name);
tbs_status_t tbs_product_host_priv_dir(char *buffer, const char *file_name);
tbs_status_t tbs_product_log_dir(char *buffer, const char *file_name);

/* Operating system, its version, machine. Non-zero on success; the texts live as long as the process. */
int tbs_platform_info(const char **os_name, const char **os_version, const char **machine);

/*
 * Non-zero if the user's profile gives `option` to `command`, both compared with case. `*argument` (out, never left
 * unset) is then the option's argument as a heap text that the caller frees with stg_free, or null if it has none or
 * without memory. The profile is the file VELIA_PROFILE, or else .velia_profile in the directory HOME: a line is
 * "command option [argument...]", "#" starts a comment line, the first match counts. Lines of more than
 * 8192 bytes are passed over. Prints nothing, unless the profile is no regular file or has more than 1 MiB: that is an
 * error, and no such profile is read.
 */
int tbs_check_profile(const char *command, const char *option, char **argument);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
