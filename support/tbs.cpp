// Status texts, uuids and internal errors.
#include <support/tbs.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "imsg_internal.h"

namespace {

struct StatusText {
    tbs_status_t status;
    const char *text;
};

constexpr StatusText status_texts[] = {
    {TBS_ST_OK, "Success"},
    {TBS_ST_ERROR, "Operation failed"},
    {TBS_ST_NOT_FOUND, "Not found"},
    {TBS_ST_RPC_FAILED, "Error communicating with the server"},
    {TBS_ST_ALREADY_EXISTS, "Already exists"},
    {TBS_ST_UNSUPPORTED, "Operation not supported"},
    {TBS_ST_STALE_ID, "Identifier is out of date"},
    {TBS_ST_NO_SERVER, "No server"},
    {TBS_ST_TRY_AGAIN, "Temporarily unavailable, try again"},
    {TBS_ST_NO_PORT, "No free port"},
    {TBS_ST_NOT_SET, "No value, or no such file or directory"},
    {TBS_ST_NO_MEMORY, "Not enough memory"},
    {TBS_ST_NO_ACCESS, "Permission denied"},
    {TBS_ST_INVALID_ARG, "Invalid argument"},
    {TBS_ST_NO_STORAGE, "Not enough storage"},
    {TBS_ST_NAME_TOO_LONG, "Name too long"},
};

struct ErrnoStatus {
    int error_number;
    tbs_status_t status;
};

constexpr ErrnoStatus errno_statuses[] = {
    {0, TBS_ST_OK},
    {ENOENT, TBS_ST_NOT_SET},
    {EEXIST, TBS_ST_ALREADY_EXISTS},
    {EACCES, TBS_ST_NO_ACCESS},
    {EPERM, TBS_ST_NO_ACCESS},
    {EROFS, TBS_ST_NO_ACCESS},
    {ENOMEM, TBS_ST_NO_MEMORY},
    {EINVAL, TBS_ST_INVALID_ARG},
    {ENAMETOOLONG, TBS_ST_NAME_TOO_LONG},
    {ENOSPC, TBS_ST_NO_STORAGE},
    {EDQUOT, TBS_ST_NO_STORAGE},
    {EAGAIN, TBS_ST_TRY_AGAIN},
    {ENOSYS, TBS_ST_UNSUPPORTED},
    {EOPNOTSUPP, TBS_ST_UNSUPPORTED},
    {EADDRINUSE, TBS_ST_NO_PORT},
    {ETIMEDOUT, TBS_ST_RPC_FAILED},
    {ECONNREFUSED, TBS_ST_RPC_FAILED},
    {ECONNRESET, TBS_ST_RPC_FAILED},
    {ECONNABORTED, TBS_ST_RPC_FAILED},
    {EPIPE, TBS_ST_RPC_FAILED},
    {EHOSTUNREACH, TBS_ST_RPC_FAILED},
    {EHOSTDOWN, TBS_ST_RPC_FAILED},
    {ENETUNREACH, TBS_ST_RPC_FAILED},
    {ENETDOWN, TBS_ST_RPC_FAILED},
};

constexpr size_t uuid_size = sizeof(tbs_uuid_t::bytes);

// The text form has a dash in front of these bytes.
constexpr bool has_dash_before(size_t byte_index) {
    return byte_index == 4 || byte_index == 6 || byte_index == 8 || byte_index == 10;
}

int digit_value(char digit) {
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    const int lower = digit | 0x20;
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// Texts of unknown statuses, kept for ever: as many as a process will meet.
struct UnknownStatus {
    UnknownStatus *next;
    tbs_status_t status;
    char text[32];
};
UnknownStatus *unknown_statuses;
uint32_t unknown_status_count;
constexpr uint32_t unknown_statuses_max = 1024;

const UnknownStatus *find_unknown(const UnknownStatus *list, tbs_status_t status) {
    while (list != nullptr && list->status != status)
        list = list->next;
    return list;
}

const char *keep_unknown(tbs_status_t status) {
    auto *made = static_cast<UnknownStatus *>(malloc(sizeof(UnknownStatus)));
    if (made == nullptr)
        return "Unknown status";
    made->status = status;
    snprintf(made->text, sizeof made->text, "Unknown status %d", status);
    made->next = __atomic_load_n(&unknown_statuses, __ATOMIC_ACQUIRE);
    while (
        !__atomic_compare_exchange_n(&unknown_statuses, &made->next, made, false, __ATOMIC_RELEASE, __ATOMIC_ACQUIRE)) {
    }
    return made->text;
}

const char *text_of_unknown(tbs_status_t status) {
    const UnknownStatus *known = find_unknown(__atomic_load_n(&unknown_statuses, __ATOMIC_ACQUIRE), status);
    if (known != nullptr)
        return known->text;
    if (__atomic_fetch_add(&unknown_status_count, 1, __ATOMIC_RELAXED) >= unknown_statuses_max) {
        __atomic_store_n(&unknown_status_count, unknown_statuses_max, __ATOMIC_RELAXED);
        return "Unknown status";
    }
    return keep_unknown(status);
}

} // namespace

const char *tbs_strerror(tbs_status_t status) {
    for (const StatusText &row : status_texts) {
        if (row.status == status)
            return row.text;
    }
    return text_of_unknown(status);
}

tbs_status_t tbs_errno2status(int error_number) {
    for (const ErrnoStatus &row : errno_statuses) {
        if (row.error_number == error_number)
            return row.status;
    }
    return TBS_ST_ERROR;
}

void tbs_log_int_error(const char *subsystem, const void *table_or_format, int index, const char *source_file, int line,
                       int reserved, ...) {
    char origin[256];
    snprintf(origin, sizeof origin, "internal error at %s, line %d: ", source_file, line);
    va_list arguments;
    va_start(arguments, reserved);
    velia::support::print_message(IMSG_ERROR, subsystem, table_or_format, index, origin, arguments);
    va_end(arguments);
}

char *tbs_uuid_to_str(const tbs_uuid_t *uuid, char *buffer) {
    constexpr char digits[] = "0123456789abcdef";
    char *at = buffer;
    for (size_t i = 0; i < uuid_size; ++i) {
        if (has_dash_before(i))
            *at++ = '-';
        *at++ = digits[uuid->bytes[i] >> 4];
        *at++ = digits[uuid->bytes[i] & 0x0f];
    }
    *at = '\0';
    return buffer;
}

tbs_status_t tbs_str_to_uuid(const char *text, tbs_uuid_t *uuid) {
    constexpr size_t first_dash_at = 8;
    if (text == nullptr)
        return TBS_ST_INVALID_ARG;
    const bool is_dashed = strnlen(text, first_dash_at + 1) > first_dash_at && text[first_dash_at] == '-';
    tbs_uuid_t read;
    for (size_t i = 0; i < uuid_size; ++i) {
        if (is_dashed && has_dash_before(i) && *text++ != '-')
            return TBS_ST_INVALID_ARG;
        const int high = digit_value(text[0]);
        const int low = high >= 0 ? digit_value(text[1]) : -1;
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
    return memcmp(left->bytes, right->bytes, uuid_size) == 0;
}

int tbs_uuid_cmp(const tbs_uuid_t *left, const tbs_uuid_t *right) {
    return memcmp(left->bytes, right->bytes, uuid_size);
}
