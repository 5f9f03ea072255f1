// RPC errors as text. The RPC library's own printers share one static buffer among threads, so the texts are made here.
#include <support/ks.h>

#include <cstdio>
#include <cstring>

#include <support/imsg.h>

#include "rpc_error.h"

namespace {

constexpr size_t error_text_size = 512;

thread_local ks_rpc_createerr_t creation_error;

// The library has no words for an interrupted call.
const char *text_of(clnt_stat status) {
    return status == RPC_INTR ? "RPC: Interrupted" : clnt_sperrno(status);
}

// What an error carries beside its status.
void append_detail(char *text, size_t size, const rpc_err &error) {
    const size_t length = strlen(text);
    char *end = text + length;
    const size_t room = size - length;
    switch (error.re_status) {
    case RPC_CANTSEND:
    case RPC_CANTRECV:
    case RPC_SYSTEMERROR:
        snprintf(end, room, "; %s", imsg_strerror(error.re_errno));
        break;
    case RPC_VERSMISMATCH:
    case RPC_PROGVERSMISMATCH:
        snprintf(end, room, "; low version = %u, high version = %u", static_cast<unsigned>(error.re_vers.low),
                 static_cast<unsigned>(error.re_vers.high));
        break;
    case RPC_AUTHERROR:
        snprintf(end, room, "; authentication error %d", static_cast<int>(error.re_why));
        break;
    default:
        break;
    }
}

void format_error(char *text, size_t size, const char *head, const rpc_err &error) {
    snprintf(text, size, "%s: %s", head != nullptr ? head : "", text_of(error.re_status));
    append_detail(text, size, error);
}

} // namespace

void velia::support::note_creation_error(enum clnt_stat stat, int error_number) {
    creation_error = {stat, error_number};
}

ks_rpc_createerr_t *ks_rpc_get_createerr(void) {
    return &creation_error;
}

void ks_clnt_perror(CLIENT *client, const char *text) {
    char line[error_text_size];
    rpc_err error = {};
    if (client != nullptr)
        clnt_geterr(client, &error);
    else
        error.re_status = RPC_FAILED;
    format_error(line, sizeof line, text, error);
    imsg_print(IMSG_ERROR, "%s\n", IMSG_FORMAT, line);
}

const char *ks_clnt_spcreateerror(const char *text) {
    static thread_local char line[error_text_size];
    rpc_err error = {};
    error.re_status = creation_error.stat;
    error.re_errno = creation_error.error_number;
    format_error(line, sizeof line, text, error);
    return line;
}

void ks_clnt_pcreateerror(const char *text) {
    imsg_print(IMSG_ERROR, "%s\n", IMSG_FORMAT, ks_clnt_spcreateerror(text));
}
