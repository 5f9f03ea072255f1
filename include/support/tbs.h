/*
 * Status values, identifiers and the layout of an installation.
 *
 * A tbs_status_t is what nearly every operation of the suite returns; results go through pointers.
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
    TBS_ST_UNSUPPORTED = 1007,
    TBS_ST_TRY_AGAIN = 1031,
    TBS_ST_NO_PORT = 1035,
    TBS_ST_NOT_SET = 1052,
    TBS_ST_NO_MEMORY = 1062,
    TBS_ST_INVALID_ARG = 1072,
};

/* 16 bytes, compared as bytes. */
typedef struct tbs_uuid {
    uint8_t bytes[16];
} tbs_uuid_t;

/* Least size of a buffer for tbs_uuid_to_str, the terminator included. */
enum { TBS_UUID_STR_SIZE = 48 };

/* The support layer's own message table; positions 0, 1, 2, 18, 20, 45, 46, 47 and 100 are in use. */
extern const imsg_table_t _tbs_cmsg_tbs_msg_table;

const char *tbs_strerror(tbs_status_t status);
tbs_status_t tbs_errno2status(int error_number);
void tbs_log_int_error(const char *subsystem, const void *table_or_format, int index, const char *source_file, int line,
                       int reserved, ...);

char *tbs_uuid_to_str(const tbs_uuid_t *uuid, char *buffer);
tbs_status_t tbs_str_to_uuid(const char *text, tbs_uuid_t *uuid);
int tbs_uuid_eq(const tbs_uuid_t *left, const tbs_uuid_t *right);
int tbs_uuid_cmp(const tbs_uuid_t *left, const tbs_uuid_t *right);

const char *tbs_product_name(void);
const char *tbs_product_version(void);
int tbs_product_comp_test(int component);

/* Each writes the path of the file under its directory; the buffer holds at least TBS_PATH_SIZE bytes. */
enum { TBS_PATH_SIZE = 1024 };
tbs_status_t tbs_product_config_dir(char *buffer, const char *file_name);
tbs_status_t tbs_product_host_config_dir(char *buffer, const char *file_name);
tbs_status_t tbs_product_host_priv_dir(char *buffer, const char *file_name);
tbs_status_t tbs_product_log_dir(char *buffer, const char *file_name);

/* Non-zero on success; the texts live as long as the process. */
int tbs_platform_info(const char **os_name, const char **os_version, const char **machine);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
