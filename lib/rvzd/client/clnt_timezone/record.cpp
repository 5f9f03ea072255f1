// The time-zone record: making, copying and reading one.
#include "timezone.h"

#include <cstddef>
#include <cstring>

#include <support/stg.h>
#include <support/strutl.h>

static_assert(sizeof(clnt_tz_date_t) == 28);
static_assert(sizeof(clnt_tz_info_t) == 208);
static_assert(offsetof(clnt_tz_info_t, offset) == 8 && offsetof(clnt_tz_info_t, st_name) == 24 &&
              offsetof(clnt_tz_info_t, st_trans) == 152);
static_assert(sizeof(time_t) == 8);

namespace {

bool has(const clnt_tz_info_t *info, uint32_t flag) {
    return (info->flags & flag) != 0;
}

clnt_tz_status_t give_minutes(const clnt_tz_info_t *info, uint32_t flag, time_t clnt_tz_info_t::*field, time_t *out) {
    if (info == nullptr || out == nullptr)
        return CLNT_TZ_ERROR;
    *out = has(info, flag) ? info->*field : 0;
    return has(info, flag) ? CLNT_TZ_OK : CLNT_TZ_INVALID;
}

clnt_tz_status_t give_answer(const clnt_tz_info_t *info, uint32_t flag, tbs_boolean_t *out) {
    if (info == nullptr || out == nullptr)
        return CLNT_TZ_ERROR;
    *out = has(info, flag) ? 1 : 0;
    return CLNT_TZ_OK;
}

// A record from elsewhere may have a name without its terminator.
clnt_tz_status_t give_name(const clnt_tz_info_t *info, uint32_t flag,
                           char const (clnt_tz_info_t::*field)[CLNT_TZ_NAME_SIZE], char *out) {
    if (info == nullptr || out == nullptr)
        return CLNT_TZ_ERROR;
    out[0] = '\0';
    if (!has(info, flag))
        return CLNT_TZ_INVALID;
    strutl_cpy_buf(out, info->*field, CLNT_TZ_NAME_SIZE);
    return CLNT_TZ_OK;
}

clnt_tz_status_t give_date(const clnt_tz_info_t *info, uint32_t flag, clnt_tz_date_t clnt_tz_info_t::*field,
                           clnt_tz_date_t *out) {
    if (info == nullptr || out == nullptr)
        return CLNT_TZ_ERROR;
    if (!has(info, flag))
        return CLNT_TZ_INVALID;
    *out = info->*field;
    return CLNT_TZ_OK;
}

} // namespace

clnt_tz_info_t *clnt_tz_new_info(void) {
    auto *info = static_cast<clnt_tz_info_t *>(stg_malloc(sizeof(clnt_tz_info_t)));
    if (info != nullptr)
        *info = {};
    return info;
}

void clnt_tz_free_info(clnt_tz_info_t **info) {
    if (info == nullptr)
        return;
    stg_free(*info);
    *info = nullptr;
}

clnt_tz_status_t clnt_tz_copy(const clnt_tz_info_t *source, clnt_tz_info_t *target) {
    if (source == nullptr || target == nullptr)
        return CLNT_TZ_ERROR;
    target->version = source->version;
    target->flags = source->flags;
    target->offset = source->offset;
    target->bias = source->bias;
    clnt_tz_st_name(source, target->st_name);
    clnt_tz_dt_name(source, target->dt_name);
    target->st_trans = source->st_trans;
    target->dt_trans = source->dt_trans;
    return CLNT_TZ_OK;
}

clnt_tz_status_t clnt_tz_offset(const clnt_tz_info_t *info, time_t *minutes) {
    return give_minutes(info, CLNT_TZ_OFFSET, &clnt_tz_info_t::offset, minutes);
}

clnt_tz_status_t clnt_tz_bias(const clnt_tz_info_t *info, time_t *minutes) {
    return give_minutes(info, CLNT_TZ_BIAS, &clnt_tz_info_t::bias, minutes);
}

clnt_tz_status_t clnt_tz_dt_defined(const clnt_tz_info_t *info, tbs_boolean_t *is_defined) {
    return give_answer(info, CLNT_TZ_DT_DEFINED, is_defined);
}

clnt_tz_status_t clnt_tz_daylight(const clnt_tz_info_t *info, tbs_boolean_t *is_in_force) {
    return give_answer(info, CLNT_TZ_DAYLIGHT, is_in_force);
}

clnt_tz_status_t clnt_tz_st_name(const clnt_tz_info_t *info, char *name) {
    return give_name(info, CLNT_TZ_ST_NAME, &clnt_tz_info_t::st_name, name);
}

clnt_tz_status_t clnt_tz_dt_name(const clnt_tz_info_t *info, char *name) {
    return give_name(info, CLNT_TZ_DT_NAME, &clnt_tz_info_t::dt_name, name);
}

clnt_tz_status_t clnt_tz_st_trans(const clnt_tz_info_t *info, clnt_tz_date_t *date) {
    return give_date(info, CLNT_TZ_ST_TRANS, &clnt_tz_info_t::st_trans, date);
}

clnt_tz_status_t clnt_tz_dt_trans(const clnt_tz_info_t *info, clnt_tz_date_t *date) {
    return give_date(info, CLNT_TZ_DT_TRANS, &clnt_tz_info_t::dt_trans, date);
}

// That a component is invalid is an answer, not a failure, and so is plain output.
void clnt_tz_status_msg(clnt_tz_status_t status) {
    switch (status) {
    case CLNT_TZ_OK:
        imsg_print(IMSG_PLAIN, &_clnt_timezone_rvzd_msg_table, CLNT_TZ_MSG_SUCCESS);
        return;
    case CLNT_TZ_ERROR:
        imsg_print(IMSG_ERROR, &_clnt_timezone_rvzd_msg_table, CLNT_TZ_MSG_ERROR);
        return;
    case CLNT_TZ_BAD_VERSION:
        imsg_print(IMSG_ERROR, &_clnt_timezone_rvzd_msg_table, CLNT_TZ_MSG_BAD_VERSION);
        return;
    case CLNT_TZ_INVALID:
        imsg_print(IMSG_PLAIN, &_clnt_timezone_rvzd_msg_table, CLNT_TZ_MSG_INVALID);
        return;
    }
    imsg_print(IMSG_ERROR, &_clnt_timezone_rvzd_msg_table, CLNT_TZ_MSG_UNKNOWN_STATUS, static_cast<int>(status));
}
