// The options text of a host: one flag that is known, and words that are kept for whoever knows them.
#include <common/with.h>
#include <rvzd/client/rvzd_clnt/rvzd_clnt.h>
#include <support/clp.h>
#include <support/stg.h>
#include <support/strutl.h>
#include <veliaxdr/rvzd_hosts.h>

using namespace velia;
using namespace velia::rvzd_clnt;

namespace {

constexpr size_t first_block_size = 1024;
constexpr size_t flag_name_size = 256;
constexpr int no_servers_flag = 0;

constexpr clp_flag_t hostinfo_flags[] = {{"-no_servers"}, {nullptr}};

void print_no_handler(clp_hdl_t parser) {
    imsg_print_shared(IMSG_ERROR, subsystem, &_tbs_cmsg_tbs_msg_table, TBS_MSG_NO_OPTION_HANDLER);
    char name[flag_name_size];
    if (clp_get_last_flag_name(parser, 1, sizeof name, name) == 0)
        imsg_print(IMSG_CONTINUATION, &_rvzd_rvzd_msg_table, RVZD_MSG_NO_OPTION_HANDLER, name);
}

// The words so far and one more; null without storage.
char *joined(stg_area_t area, const char *words, const char *word) {
    if (words == nullptr)
        return stg_area_strdup(area, word);
    return strutl_concat_area(area, 3, words, " ", word);
}

tbs_status_t keep_rest(const char *words, rvzd_hostinfo_opts_t &options) {
    if (words == nullptr)
        return TBS_ST_OK;
    options.rest = stg_strdup(words);
    return options.rest != nullptr ? TBS_ST_OK : TBS_ST_NO_MEMORY;
}

tbs_status_t read_options(clp_hdl_t parser, stg_area_t area, rvzd_hostinfo_opts_t &options) {
    const char *words = nullptr;
    while (true) {
        int flag = -1;
        const int found = clp_get_next_flag_value(parser, 1, &flag);
        if (found == CLP_FLAG) {
            if (flag != no_servers_flag) {
                print_no_handler(parser);
                return TBS_ST_ERROR;
            }
            options.no_servers = 1;
            continue;
        }
        if (found == CLP_ARGUMENT)
            clp_unget_arg(parser);
        char *word;
        if (clp_get_next_arg(parser, &word) != 0)
            return keep_rest(words, options);
        words = joined(area, words, word);
        if (words == nullptr)
            return TBS_ST_NO_MEMORY;
    }
}

tbs_status_t parse_options(const char *text, rvzd_hostinfo_opts_t &options) {
    stg_area_t area = stg_create_area(first_block_size);
    if (area == nullptr)
        return TBS_ST_NO_MEMORY;
    tbs_status_t status = TBS_ST_ERROR;
    clp_hdl_t parser = clp_create_hdl_using_string(text, hostinfo_flags, area);
    if (parser != nullptr) {
        status = read_options(parser, area, options);
        clp_destroy_hdl(&parser);
    }
    stg_delete_area(&area);
    return status;
}

} // namespace

tbs_status_t rvzd_hostinfo_parse_opts(const clnt_hostinfo_t *info, rvzd_hostinfo_opts_t *options) {
    *options = {};
    if (info->options == nullptr || *info->options == '\0')
        return TBS_ST_OK;
    return with_inhibit([&] { return parse_options(info->options, *options); });
}

void rvzd_hostinfo_free_opts(rvzd_hostinfo_opts_t *options) {
    if (options == nullptr)
        return;
    stg_free(options->rest);
    options->rest = nullptr;
}
