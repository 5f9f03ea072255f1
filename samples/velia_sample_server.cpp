// The smallest server process of the suite. It serves one RPC program with two procedures, 0 (nothing) and 1 (echo of a
// string), and shows all that a server owes its broker:
//
//   1. start up, and take over the sockets that the broker opened (or, alone, allocate some)
//   2. register under each transport that it serves
//   3. report busy when work comes, idle when it has stayed away
//   4. go down when the lifeline says so
//
// velia-sample-server [--prog N] [--vers N] [--path PATH] [--quiet-seconds N] [--alone]
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>

#include <rpc/rpc.h>
#include <rpc/svc_dg.h>
#include <sys/socket.h>

#include <support/pfm.h>
#include <support/rt.h>
#include <veliaxdr/rvzd_svr.h>

namespace {

constexpr rpcproc_t proc_echo = 1;
constexpr uint32_t sockets_max = 8;
constexpr int fds_max = FD_SETSIZE;

struct Options {
    uint32_t program = 390600;
    uint32_t version = 1;
    const char *path = "";
    int quiet_seconds = 5;
    bool is_alone = false;
};

Options options;
constexpr tbs_uuid_t any_uuid = {}; // this server answers for whatever it is asked
bool is_busy;
time_t last_request;
bool is_watched[fds_max];

// The broker gives a busy server to no other client while there is an idle one, and ends a server that stays idle.
void look_whether_idle(void * /*unused*/) {
    const time_t quiet_seconds = time(nullptr) - last_request;
    if (quiet_seconds < options.quiet_seconds) {
        rt_sched(look_whether_idle, nullptr, options.quiet_seconds - static_cast<int>(quiet_seconds));
        return;
    }
    is_busy = false;
    rvzd_server_idle(nullptr, 0);
}

void note_request() {
    last_request = time(nullptr);
    if (is_busy)
        return;
    is_busy = true;
    rvzd_server_busy(nullptr, &any_uuid);
    rt_sched(look_whether_idle, nullptr, options.quiet_seconds);
}

bool_t xdr_nothing(XDR * /*stream*/, ...) {
    return TRUE;
}

void echo(SVCXPRT *transport) {
    char *text = nullptr;
    if (!svc_getargs(transport, reinterpret_cast<xdrproc_t>(xdr_wrapstring), &text)) {
        svcerr_decode(transport);
        return;
    }
    svc_sendreply(transport, reinterpret_cast<xdrproc_t>(xdr_wrapstring), &text);
    svc_freeargs(transport, reinterpret_cast<xdrproc_t>(xdr_wrapstring), &text);
}

void dispatch(svc_req *request, SVCXPRT *transport) {
    note_request();
    switch (request->rq_proc) {
    case NULLPROC:
        svc_sendreply(transport, xdr_nothing, nullptr);
        break;
    case proc_echo:
        echo(transport);
        break;
    default:
        svcerr_noproc(transport);
    }
}

void serve_descriptor(void *argument);

// The RPC library opens and closes connections as clients come and go; the event loop has to follow.
void follow_descriptors() {
    for (int fd = 0; fd < fds_max; ++fd) {
        const bool is_served = FD_ISSET(fd, &svc_fdset);
        if (is_served && !is_watched[fd])
            rt_handle_fd(RT_READ, serve_descriptor, fd, reinterpret_cast<void *>(static_cast<intptr_t>(fd)));
        else if (!is_served && is_watched[fd])
            rt_forget_fd(fd);
        is_watched[fd] = is_served;
    }
}

void serve_descriptor(void *argument) {
    svc_getreq_common(static_cast<int>(reinterpret_cast<intptr_t>(argument)));
    follow_descriptors();
}

bool serve_socket(const rvzd_socket_desc_t &desc) {
    if (desc.protocol == RVZD_PROTOCOL_TCP)
        listen(desc.fd, SOMAXCONN); // a second time does no harm
    SVCXPRT *transport =
        desc.protocol == RVZD_PROTOCOL_UDP ? svc_dg_create(desc.fd, 0, 0) : svc_vc_create(desc.fd, 0, 0);
    return transport != nullptr && svc_reg(transport, options.program, options.version, dispatch, nullptr);
}

// One registration for each transport, with the ports of both address families.
tbs_status_t register_transport(const rvzd_socket_desc_t *descs, uint32_t count, rvzd_protocol_in_t protocol) {
    rvzd_socket_desc_t own[sockets_max];
    int32_t own_count = 0;
    for (uint32_t i = 0; i < count; ++i)
        if (descs[i].protocol == protocol)
            own[own_count++] = descs[i];
    if (own_count == 0)
        return TBS_ST_OK;
    const rvzd_rpc_trait_t trait = {options.program, options.version, protocol};
    return rvzd_register_server(nullptr, &trait, &any_uuid, options.path, own, own_count);
}

tbs_status_t get_sockets(int *argc, char **argv, rvzd_socket_desc_t *descs, uint32_t *count) {
    if (!options.is_alone)
        return rvzd_server_get_sockets(argc, argv, descs, count);
    *count = 0;
    for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
        uint32_t allocated = 0;
        const tbs_status_t status = rvzd_alloc_sockets(type, 1, options.program, descs + *count, &allocated);
        if (status != TBS_ST_OK)
            return status;
        *count += allocated;
    }
    return TBS_ST_OK;
}

tbs_status_t set_up(int *argc, char **argv) {
    rvzd_socket_desc_t descs[sockets_max];
    uint32_t count = 0;
    tbs_status_t status = get_sockets(argc, argv, descs, &count);
    for (uint32_t i = 0; status == TBS_ST_OK && i < count; ++i)
        if (!serve_socket(descs[i]))
            status = TBS_ST_ERROR;
    follow_descriptors();
    for (const rvzd_protocol_in_t protocol : {RVZD_PROTOCOL_UDP, RVZD_PROTOCOL_TCP})
        if (status == TBS_ST_OK)
            status = register_transport(descs, count, protocol);
    return status;
}

void read_options(int argc, char **argv) {
    for (int i = 1; i < argc; ++i) {
        const char *value = i + 1 < argc ? argv[i + 1] : "";
        if (strcmp(argv[i], "--prog") == 0)
            options.program = static_cast<uint32_t>(strtoul(value, nullptr, 0));
        else if (strcmp(argv[i], "--vers") == 0)
            options.version = static_cast<uint32_t>(strtoul(value, nullptr, 0));
        else if (strcmp(argv[i], "--path") == 0)
            options.path = value;
        else if (strcmp(argv[i], "--quiet-seconds") == 0)
            options.quiet_seconds = atoi(value);
        else if (strcmp(argv[i], "--alone") == 0)
            options.is_alone = true;
    }
}

} // namespace

int main(int argc, char **argv) {
    rvzd_common_server_init(argc, argv, nullptr);
    read_options(argc, argv);
    const tbs_status_t status = set_up(&argc, argv);
    if (status != TBS_ST_OK) {
        fprintf(stderr, "%s: cannot serve: %s\n", argv[0], tbs_strerror(status));
        return EXIT_FAILURE;
    }
    // The cut lifeline arrives as a raise that leaves rt_run, and lands here.
    pfm_frame_t frame;
    frame.code = sigsetjmp(frame.jump, 1);
    if (pfm_cleanup_start(&frame, 0))
        return EXIT_SUCCESS;
    rt_run();
    pfm_cleanup_rls(&frame);
    return EXIT_SUCCESS;
}
