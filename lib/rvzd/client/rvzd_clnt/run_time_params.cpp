// The reader of the run-time parameter file. It is read afresh at each call: what a change means for values that a
// program has taken over is that program's business.
#include <veliaxdr/rvzd_socket.h>

#include <common/refused_file.h>
#include <common/text_cursor.h>
#include <common/with.h>
#include <rvzd/client/rvzd_clnt/rvzd_clnt.h>

using namespace velia;
using namespace velia::rvzd_clnt;

namespace {

constexpr char file_name[] = "services/rvzd_rt_params.conf";
constexpr FileBounds file_bounds = {configuration_file.file_bytes, 255};

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
    TextCursor cursor(text);
    cursor.skip_until_digit();
    return cursor.take_number(*value) ? TBS_ST_OK : TBS_ST_ERROR;
}

// The first line that holds the key decides, in whatever word the key stands. A longer line than the bound counts as
// several; a last line without a newline is never looked at.
tbs_status_t find_in_file(TextFile &file, const char *key, int32_t *value, FileOutcome &outcome) {
    TextLine line;
    while ((outcome = file.next_line(line)) == FileOutcome::line_too_long ||
           (outcome == FileOutcome::ok && line.has_end)) {
        const std::string_view whole(line.text);
        const auto code = whole.substr(0, whole.find('#'));
        const auto at = code.find(key);
        if (at != std::string_view::npos)
            return number_behind(code.substr(at), value);
    }
    return TBS_ST_NOT_SET;
}

tbs_status_t read_param(const char *path, const char *key, int32_t *value) {
    TextFile file;
    FileOutcome outcome = file.open(path, file_bounds);
    tbs_status_t status = TBS_ST_NOT_SET;
    if (outcome == FileOutcome::ok) {
        status = find_in_file(file, key, value, outcome);
        file.close();
    }
    if (is_refused(outcome))
        print_refused_file(subsystem, path, file, outcome);
    return status;
}

} // namespace

tbs_status_t rvzd_get_rt_param(uint32_t index, int32_t *value) {
    *value = 0;
    if (index >= RVZD_RT_PARAM_COUNT)
        return TBS_ST_ERROR;
    char path[TBS_PATH_SIZE];
    if (tbs_product_config_dir(path, file_name) != TBS_ST_OK)
        return TBS_ST_NOT_SET;
    return with_inhibit([&] { return read_param(path, keys[index], value); });
}
