// Data of a remote build host.
#include <cerrno>
#include <cstring>

#include <rvzd/client/rvzd_clnt/broker_call.h>
#include <support/credmap.h>
#include <support/credutl.h>
#include <support/strutl.h>
#include <veliaxdr/rvzd_hosts.h>

using namespace velia;
using namespace velia::rvzd_clnt;

namespace {

constexpr size_t failure_text_size = 256;
constexpr char failure_text[] = ": rvzd_remote_build_hi call failed";

// The mapped credentials are not sent; what counts is that this process's groups can be had.
tbs_status_t map_credentials(const rvzd_handle_t *handle, uint32_t user, uint32_t group) {
    credutl_sid_t user_sid;
    credutl_sid_t group_sid;
    uint32_t groups[CREDUTL_GROUPS_MAX];
    credutl_uid_to_sid(&user_sid, user);
    credutl_gid_to_sid(&group_sid, group);
    const int group_count = credutl_getgroups(CREDUTL_GROUPS_MAX, groups);
    if (group_count < 0) {
        const int error_number = errno;
        imsg_print_shared(IMSG_ERROR, subsystem, &_tbs_cmsg_tbs_msg_table, TBS_MSG_TEXT, "getgroups failed: ");
        imsg_print_shared(IMSG_CONTINUATION, subsystem, &_tbs_cmsg_tbs_msg_table, TBS_MSG_FURTHER_LINE,
                          imsg_strerror(error_number));
        return TBS_ST_ERROR;
    }
    credutl_sid_credentials_t credentials;
    credutl_init_sid_credentials(&user_sid, &group_sid, static_cast<uint32_t>(group_count), groups, &credentials);
    credmap_local_to_remote_sid(&credentials, handle->cached->host_name, &credentials);
    return TBS_ST_OK;
}

void print_failure(const rvzd_handle_t *handle, const char *host) {
    char text[failure_text_size];
    strutl_snprintf(text, sizeof text, "%s%s", host, failure_text);
    print_failed_call(handle->cached->client, text);
}

// False, with an empty text, when the caller's buffer cannot hold it.
bool hand_out(const char *text, char *buffer) {
    const bool fits = text == nullptr || strlen(text) < RVZD_REMOTE_BUILD_TEXT_SIZE;
    strutl_cpy_buf(buffer, fits && text != nullptr ? text : "", RVZD_REMOTE_BUILD_TEXT_SIZE);
    return fits;
}

} // namespace

tbs_status_t rvzd_remote_build_request_hi(rvzd_handle_t *handle, const char *host, uint32_t user, uint32_t group,
                                          int32_t *first, int32_t *second, time_t *when, int32_t *third, char *text1,
                                          char *text2, char *text3) {
    const auto status = map_credentials(handle, user, group);
    if (status != TBS_ST_OK)
        return status;
    rvzd_remote_build_hi_req_t request = {{}, const_cast<char *>(host), user, group};
    rvzd_remote_build_hi_reply_t reply = {};
    return broker_call(handle, quiet(procedures::remote_build_hi), request, reply,
                       [&](clnt_stat outcome) -> tbs_status_t {
                           if (outcome != RPC_SUCCESS) {
                               print_failure(handle, host);
                               return TBS_ST_RPC_FAILED;
                           }
                           *first = reply.word1;
                           *second = reply.word2;
                           *when = reply.time;
                           *third = reply.word3;
                           const bool fit1 = hand_out(reply.text1, text1);
                           const bool fit2 = hand_out(reply.text2, text2);
                           const bool fit3 = hand_out(reply.text3, text3);
                           return fit1 && fit2 && fit3 ? reply.header.status : tbs_status_t{TBS_ST_NAME_TOO_LONG};
                       });
}
