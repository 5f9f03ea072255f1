// The start of a server process: its name in messages, its log, and the sockets that the broker opened for it.
#include <cerrno>
#include <clocale>
#include <cstring>
#include <unistd.h>

#include <common/text_cursor.h>
#include <rvzd/client/rvzd_clnt/rvzd_clnt.h>
#include <support/ks.h>
#include <support/rt.h>
#include <support/strutl.h>
#include <veliaxdr/rvzd_svr.h>

using namespace velia;
using namespace velia::rvzd_clnt;

namespace {

constexpr char lifeline_prefix[] = "-S";
constexpr int lifeline_raise_code = 4;

// The lifeline is readable: the broker is gone, or wants this server to go.
void rvzd_handle_lifeline(void * /*unused*/) {
    pfm_raise(lifeline_raise_code);
}

bool take_lifeline(const char *argument, TextCursor &cursor, int32_t &lifeline_fd) {
    if (argument == nullptr)
        return false;
    cursor = TextCursor(argument);
    return cursor.consume(lifeline_prefix) && cursor.take_signed_number(lifeline_fd);
}

rvzd_protocol_in_t protocol_of_name(std::string_view name) {
    for (int i = 0; i < RVZD_PROTOCOL_NAMES_COUNT; ++i)
        if (rvzd_protocol_names[i] != nullptr && name == rvzd_protocol_names[i])
            return static_cast<rvzd_protocol_in_t>(i);
    return RVZD_PROTOCOL_UNKNOWN;
}

bool take_socket(TextCursor &cursor, rvzd_socket_desc_t &desc) {
    if (!cursor.take_signed_number(desc.fd) || !cursor.consume(","))
        return false;
    desc.protocol = protocol_of_name(cursor.take_until(':'));
    return desc.protocol != RVZD_PROTOCOL_UNKNOWN;
}

tbs_status_t describe_socket(rvzd_socket_desc_t &desc) {
    socklen_t length = sizeof desc.addr;
    if (getsockname(desc.fd, &desc.addr.base, &length) == 0)
        return TBS_ST_OK;
    imsg_print(IMSG_ERROR, &_rvzd_rvzd_msg_table, RVZD_MSG_GETSOCKNAME, imsg_strerror(errno));
    return TBS_ST_ERROR;
}

tbs_status_t take_sockets(const char *argument, TextCursor cursor, rvzd_socket_desc_t *descs, uint32_t &count) {
    while (cursor.skip_past(':')) {
        rvzd_socket_desc_t &desc = descs[count];
        desc = {};
        if (!take_socket(cursor, desc)) {
            imsg_print(IMSG_ERROR, &_rvzd_rvzd_msg_table, RVZD_MSG_BAD_SWITCH, argument);
            return TBS_ST_ERROR;
        }
        const auto status = describe_socket(desc);
        if (status != TBS_ST_OK)
            return status;
        ++count;
    }
    return TBS_ST_OK;
}

} // namespace

void rvzd_common_server_init(int argc, char **argv, char *name) {
    ks_system_init(argc, argv, name);
    char process_name[RVZD_SERVER_PROCESS_NAME_SIZE] = "";
    if (argc > 0 && argv[0] != nullptr)
        strutl_snprintf(process_name, sizeof process_name, "%s(%d)", argv[0], static_cast<int>(getpid()));
    const char *shown = process_name[0] != '\0' ? process_name : "unknown name";
    imsg_set_app_name(shown);
    if (name != nullptr)
        strutl_cpy_buf(name, shown, RVZD_SERVER_PROCESS_NAME_SIZE);
    setlocale(LC_ALL, "");
}

void rvzd_setup_server_log_file(const char *name) {
    char path[TBS_PATH_SIZE];
    const auto status = tbs_product_log_dir(path, name);
    if (status != TBS_ST_OK)
        imsg_print_shared(IMSG_ERROR, subsystem, &_tbs_cmsg_tbs_msg_table, TBS_MSG_CANNOT_OPEN, name,
                          tbs_strerror(status));
    else if (imsg_init_daemon(path) != 0)
        imsg_print_shared(IMSG_ERROR, subsystem, &_tbs_cmsg_tbs_msg_table, TBS_MSG_CANNOT_OPEN, path,
                          imsg_strerror(errno));
}

tbs_status_t rvzd_server_get_sockets(int *argc, char **argv, rvzd_socket_desc_t *descs, uint32_t *count) {
    if (*argc < 2)
        return TBS_ST_NOT_FOUND;
    *count = 0;
    const char *argument = argv[*argc - 1];
    TextCursor cursor("");
    int32_t lifeline_fd;
    if (!take_lifeline(argument, cursor, lifeline_fd))
        return TBS_ST_NOT_FOUND;
    --*argc;
    require_as(rt_handle_fd(RT_READ, rvzd_handle_lifeline, lifeline_fd, nullptr) != 0,
               "rt_handle_fd(RT_READ, rvzd_handle_lifeline, lifeline_fd, NULL)", 2027);
    return take_sockets(argument, cursor, descs, *count);
}
