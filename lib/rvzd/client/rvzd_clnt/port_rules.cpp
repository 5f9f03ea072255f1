// Port rules: two programs with a fixed port and one with a range, from the run-time parameter file or, for the range,
// from the environment. What was read holds for the life of the process; clamps keep a rule out of the reserved ports.
#include <cstdlib>

#include <common/with.h>
#include <rvzd/client/rvzd_clnt/rvzd_clnt.h>
#include <support/env.h>
#include <veliaxdr/rvzd_handle.h>
#include <veliaxdr/rvzd_socket.h>

using velia::with_lock;
using velia::rvzd_clnt::call_lock;

namespace {

constexpr size_t env_size = 256;
constexpr int32_t generic_service_least_port = 1026;

uint16_t ivladm_svr_port;
uint16_t fladm_svr_port;
uint16_t flshp_min_port;
uint16_t flshp_max_port;
int32_t flshp_strict_range;
bool parse_ivladm_port_value;
bool parse_fladm_port_value;
bool parse_flshp_port_value;
tbs_status_t rt_min_stat;
tbs_status_t rt_max_stat;
tbs_status_t rt_strict_stat;
int32_t strict_int;

struct Range {
    uint16_t *low;
    uint16_t *high;
    int32_t *strict;
};

struct FixedPortRule {
    uint16_t &remembered;
    bool &file_was_read;
    uint32_t parameter;
    uint16_t least;
    uint16_t most;
};

int32_t clamp(int32_t value, int32_t least, int32_t most) {
    if (value < least)
        return least;
    return value > most ? most : value;
}

int fixed_port(const FixedPortRule &rule, const Range &out) {
    if (rule.remembered != 0) {
        // The strict flag is not written here: a caller sees what it preset.
        *out.low = *out.high = rule.remembered;
        return 1;
    }
    if (rule.file_was_read)
        return 0;
    rule.file_was_read = true;
    int32_t port;
    if (rvzd_get_rt_param(rule.parameter, &port) != TBS_ST_OK || port == 0)
        return 0;
    rule.remembered = static_cast<uint16_t>(clamp(port, rule.least, rule.most));
    *out.low = *out.high = rule.remembered;
    *out.strict = flshp_strict_range;
    return 1;
}

bool read_environment_port(const char *name, int32_t &port) {
    char text[env_size];
    if (getenv_safe(name, text, sizeof text, 0) == nullptr)
        return false;
    const long number = strtol(text, nullptr, 10);
    // Beyond 32 bits a number is clamped here just as it would be by the rule.
    port = static_cast<int32_t>(number < INT32_MIN ? INT32_MIN : number > INT32_MAX ? INT32_MAX : number);
    return true;
}

// A range read from the file; false when its two ports are not to be had. The file is read once: later calls find the
// statuses of that read, and local values of 0.
bool range_from_file(int32_t &low, int32_t &high) {
    low = high = 0;
    if (!parse_flshp_port_value) {
        rt_min_stat = rvzd_get_rt_param(RVZD_RT_FLSHP_MIN_PORT, &low);
        rt_max_stat = rvzd_get_rt_param(RVZD_RT_FLSHP_MAX_PORT, &high);
        rt_strict_stat = rvzd_get_rt_param(RVZD_RT_FLSHP_STRICT, &strict_int);
        parse_flshp_port_value = true;
    }
    return rt_min_stat == TBS_ST_OK && rt_max_stat == TBS_ST_OK;
}

// A range from the environment is always strict, a refused one included.
bool range_from_environment(int32_t &low, int32_t &high) {
    if (!read_environment_port("IRONVALE_MIN_PORT", low) || !read_environment_port("IRONVALE_MAX_PORT", high))
        return false;
    flshp_strict_range = 1;
    return true;
}

// The high end alone tells whether a range is remembered: one below zero leaves a low end and none that is high.
int generic_service_range(const Range &out) {
    if (flshp_max_port == 0) {
        int32_t low;
        int32_t high;
        const bool from_file = range_from_file(low, high);
        if (!from_file && !range_from_environment(low, high))
            return 0;
        if (low >= high)
            return 0;
        if (from_file && rt_strict_stat == TBS_ST_OK && strict_int == 1)
            flshp_strict_range = 1;
        if (low == 0 || high == 0)
            return 0;
        flshp_min_port = static_cast<uint16_t>(clamp(low, generic_service_least_port, UINT16_MAX));
        flshp_max_port = static_cast<uint16_t>(clamp(high, 0, UINT16_MAX));
    }
    *out.low = flshp_min_port;
    *out.high = flshp_max_port;
    *out.strict = flshp_strict_range;
    return 1;
}

int range_of(uint64_t program, const Range &out) {
    switch (program) {
    case RVZD_IVLADM_PROGRAM:
        return fixed_port({ivladm_svr_port, parse_ivladm_port_value, RVZD_RT_IVLADM_SVR_PORT, 1024, 65533}, out);
    case RVZD_FLADM_PROGRAM:
        return fixed_port({fladm_svr_port, parse_fladm_port_value, RVZD_RT_FLADM_SVR_PORT, 1025, 65534}, out);
    case RVZD_GENERIC_SERVICE_PROGRAM:
        return generic_service_range(out);
    default:
        return 0;
    }
}

} // namespace

int rvzd_bindport_has_port_range(uint64_t program, uint16_t *low, uint16_t *high, int32_t *strict) {
    return with_lock(call_lock, [&] { return range_of(program, {low, high, strict}); });
}
