// Status texts, identifiers, and where an installation keeps its files.
#include <support/tbs.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/utsname.h>
#include <unistd.h>

#include "message_format.h"

namespace {

struct StatusText {
    tbs_status_t status;
    const char *text;
};

constexpr StatusText status_texts[] = {
    {TBS_ST_OK, "Success"},
    {TBS_ST_ERROR, "Error"},
    {TBS_ST_NOT_FOUND, "Not found"},
    {TBS_ST_RPC_FAILED, "Remote procedure call failed or timed out"},
    {TBS_ST_UNSUPPORTED, "Not supported by the peer"},
    {TBS_ST_TRY_AGAIN, "Temporary failure, try again"},
    {TBS_ST_NO_PORT, "No port is free in the range"},
    {TBS_ST_NOT_SET, "Parameter is not set"},
    {TBS_ST_NO_MEMORY, "Out of memory"},
    {TBS_ST_INVALID_ARG, "Invalid argument"},
};

struct ErrnoStatus {
    int error_number;
    tbs_status_t status;
};

constexpr ErrnoStatus errno_statuses[] = {
    {0, TBS_ST_OK},
    {ENOENT, TBS_ST_NOT_FOUND},
    {ENOMEM, TBS_ST_NO_MEMORY},
    {EINVAL, TBS_ST_INVALID_ARG},
    {EAGAIN, TBS_ST_TRY_AGAIN},
    {ETIMEDOUT, TBS_ST_RPC_FAILED},
    {ECONNREFUSED, TBS_ST_RPC_FAILED},
    {ECONNRESET, TBS_ST_RPC_FAILED},
    {EHOSTUNREACH, TBS_ST_RPC_FAILED},
    {ENETUNREACH, TBS_ST_RPC_FAILED},
    {EADDRINUSE, TBS_ST_NO_PORT},
    {ENOTSUP, TBS_ST_UNSUPPORTED},
    {EAFNOSUPPORT, TBS_ST_UNSUPPORTED},
};

constexpr int uuid_dashes_before[] = {4, 6, 8, 10};

bool dash_before(int byte) {
    for (int position : uuid_dashes_before)
        if (position == byte)
            return true;
    return false;
}

int hex_value(char digit) {
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    if (digit >= 'a' && digit <= 'f')
        return digit - 'a' + 10;
    return digit >= 'A' && digit <= 'F' ? digit - 'A' + 10 : -1;
}

const char *root_directory() {
    const char *root = getenv("VELIA_ROOT");
    return root != nullptr && *root != '\0' ? root : "/var/lib/velia";
}

tbs_status_t path_below_root(char *buffer, const char *directory, const char *file_name) {
    const int length = snprintf(buffer, TBS_PATH_SIZE, "%s/%s/%s", root_directory(), directory, file_name);
    if (length >= 0 && length < TBS_PATH_SIZE)
        return TBS_ST_OK;
    buffer[0] = '\0';
    return TBS_ST_INVALID_ARG;
}

} // namespace

const char *tbs_strerror(tbs_status_t status) {
    for (const StatusText &row : status_texts)
        if (row.status == status)
            return row.text;
    static thread_local char text[40];
    snprintf(text, sizeof text, "Status %d", status);
    return text;
}

tbs_status_t tbs_errno2status(int error_number) {
    for (const ErrnoStatus &row : errno_statuses)
        if (row.error_number == error_number)
            return row.status;
    return TBS_ST_ERROR;
}

void tbs_log_int_error(const char *subsystem, const void *table_or_format, int index, const char *source_file, int line,
                       int reserved, ...) {
    char text[support::message_size];
    va_list arguments;
    va_start(arguments, reserved);
    support::format_message(text, sizeof text, table_or_format, index, arguments);
    va_end(arguments);
    support::deliver(IMSG_ERROR, subsystem, table_or_format, index, text);
    imsg_print(IMSG_TRACE, "internal error logged at %s:%d\n", IMSG_FORMAT, source_file, line);
}

char *tbs_uuid_to_str(const tbs_uuid_t *uuid, char *buffer) {
    char *at = buffer;
    for (int i = 0; i < 16; ++i) {
        if (dash_before(i))
            *at++ = '-';
        at += snprintf(at, 3, "%02x", uuid->bytes[i]);
    }
    return buffer;
}

tbs_status_t tbs_str_to_uuid(const char *text, tbs_uuid_t *uuid) {
    tbs_uuid_t read = {};
    for (int i = 0; i < 16; ++i) {
        if (dash_before(i) && *text == '-')
            ++text;
        const int high = hex_value(text[0]);
        const int low = high < 0 ? -1 : hex_value(text[1]);
        if (low < 0)
            return TBS_ST_INVALID_ARG;
        read.bytes[i] = static_cast<uint8_t>(high << 4 | low);
        text += 2;
    }
    if (*text != '\0')
        return TBS_ST_INVALID_ARG;
    *uuid = read;
    return TBS_ST_OK;
}

int tbs_uuid_eq(const tbs_uuid_t *left, const tbs_uuid_t *right) {
    return tbs_uuid_cmp(left, right) == 0;
}

int tbs_uuid_cmp(const tbs_uuid_t *left, const tbs_uuid_t *right) {
    return memcmp(left->bytes, right->bytes, sizeof left->bytes);
}

const char *tbs_product_name(void) {
    return "Velia";
}

const char *tbs_product_version(void) {
    return "11.0.0.1";
}

int tbs_product_comp_test(int component) {
    char marker[TBS_PATH_SIZE];
    const bool client_only = tbs_product_config_dir(marker, "client_only") == TBS_ST_OK && access(marker, F_OK) == 0;
    return client_only ? component & ~1 : component;
}

tbs_status_t tbs_product_config_dir(char *buffer, const char *file_name) {
    return path_below_root(buffer, "config", file_name);
}

tbs_status_t tbs_product_host_config_dir(char *buffer, const char *file_name) {
    return path_below_root(buffer, "host/config", file_name);
}

tbs_status_t tbs_product_host_priv_dir(char *buffer, const char *file_name) {
    return path_below_root(buffer, "host/priv", file_name);
}

tbs_status_t tbs_product_log_dir(char *buffer, const char *file_name) {
    return path_below_root(buffer, "log", file_name);
}

int tbs_platform_info(const char **os_name, const char **os_version, const char **machine) {
    static utsname info;
    static const int result = uname(&info);
    if (result != 0)
        return 0;
    *os_name = info.sysname;
    *os_version = info.release;
    *machine = info.machine;
    return 1;
}
