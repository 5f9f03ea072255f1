// The reader of the run-time parameter file. It is read afresh at each call: what a change means for values that a
// program has taken over is that program's business.
#include <cstdio>
#include <cstring>

#include <common/text_cursor.h>
#include <support/tbs.h>
#include <veliaxdr/rvzd_socket.h>

namespace {

constexpr char file_name[] = "services/rvzd_rt_params.conf";
constexpr int line_size = 256;

constexpr const char *keys[] = {
    "TCP_RCV_BUF_SZ",
    "UDP_RCV_BUF_SZ",
    "RGY_FLUSH_INTERVAL",
    "IDLE_SLOPE",
    "IVLADM_SVR_PORT",
    "FLADM_SVR_PORT",
    "FLSHP_MIN_PORT",
    "FLSHP_MAX_PORT",
    "FLSHP_STRICT",
    "IRONVALE_VIEW_UDP_BUFFER_SIZE",
    "SUPPRESS_LONG_LIVED_VAULTRPC_SERVERS",
    "IRONVALE_VIEW_RDDIR_CACHE_PERCENT",
    "MAX_RGY_WORKER_THREADS",
};
static_assert(sizeof(keys) / sizeof(keys[0]) == RVZD_RT_PARAM_COUNT);

// Takes the first number behind the key, whatever stands between. A number beyond 32 bits is no value.
tbs_status_t number_behind(std::string_view text, int32_t *value) {
    velia::TextCursor cursor(text);
    cursor.skip_until_digit();
    return cursor.take_number(*value) ? TBS_ST_OK : TBS_ST_ERROR;
}

// The first line that holds the key decides, in whatever word the key stands. The end of the file is tested right after
// each read, so a last line without a newline is never looked at.
tbs_status_t find_in_file(FILE *file, const char *key, int32_t *value) {
    char line[line_size];
    while (fgets(line, line_size, file) != nullptr && !feof(file)) {
        const std::string_view whole(line);
        const auto code = whole.substr(0, whole.find('#'));
        const auto at = code.find(key);
        if (at != std::string_view::npos)
            return number_behind(code.substr(at), value);
    }
    return TBS_ST_NOT_SET;
}

} // namespace

tbs_status_t rvzd_get_rt_param(uint32_t index, int32_t *value) {
    *value = 0;
    if (index >= RVZD_RT_PARAM_COUNT)
        return TBS_ST_ERROR;
    char path[TBS_PATH_SIZE];
    if (tbs_product_config_dir(path, file_name) != TBS_ST_OK)
        return TBS_ST_NOT_SET;
    FILE *file = fopen(path, "re");
    if (file == nullptr)
        return TBS_ST_NOT_SET;
    const auto status = find_in_file(file, keys[index], value);
    fclose(file);
    return status;
}
