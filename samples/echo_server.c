/* A server in C: program 390600, version 1, procedure 1 gives a text back. It is started by the rendezvous daemon,
   which opens its sockets; line of rvzd_server.conf:

       udp,tcp shared 390600 1 max=1,idle=60 - - /path/to/echo-server

   cc echo_server.c -o echo-server $(pkg-config --cflags --libs libveliaxdr libveliasupport) */
#include <stdio.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <time.h>

#include <rpc/rpc.h>
#include <rpc/svc_dg.h>

#include <support/pfm.h>
#include <support/rt.h>
#include <veliaxdr/rvzd_svr.h>

enum { program = 390600, version = 1, echo_procedure = 1, quiet_s = 5, sockets_max = 8 };

static const tbs_uuid_t any_uuid; /* all zero: this server answers for whatever it is asked */
static int is_busy;
static time_t last_call;
static char is_watched[FD_SETSIZE];

/* A busy server is handed out only when no idle one is there; an idle one is ended some day. So a server says both. */
static void look_whether_idle(void *unused) {
    const int quiet = (int)(time(NULL) - last_call);
    (void)unused;
    if (quiet < quiet_s) {
        rt_sched(look_whether_idle, NULL, quiet_s - quiet);
        return;
    }
    is_busy = 0;
    rvzd_server_idle(NULL, 0);
}

static void note_call(void) {
    last_call = time(NULL);
    if (is_busy)
        return;
    is_busy = 1;
    rvzd_server_busy(NULL, &any_uuid);
    rt_sched(look_whether_idle, NULL, quiet_s);
}

static bool_t xdr_nothing(XDR *stream, ...) {
    (void)stream;
    return TRUE;
}

static void dispatch(struct svc_req *request, SVCXPRT *transport) {
    char *text = NULL;
    note_call();
    if (request->rq_proc == NULLPROC) {
        svc_sendreply(transport, (xdrproc_t)xdr_nothing, NULL);
    } else if (request->rq_proc != echo_procedure) {
        svcerr_noproc(transport);
    } else if (!svc_getargs(transport, (xdrproc_t)xdr_wrapstring, (char *)&text)) {
        svcerr_decode(transport);
    } else {
        svc_sendreply(transport, (xdrproc_t)xdr_wrapstring, (char *)&text);
        svc_freeargs(transport, (xdrproc_t)xdr_wrapstring, (char *)&text);
    }
}

/* The RPC library opens a descriptor for each connection and closes it when the client goes; its set says which there
   are. The event loop has to be told of each difference, behind whatever the library has done. */
static void serve_descriptor(void *argument);

static void follow_descriptors(void) {
    for (int fd = 0; fd < FD_SETSIZE; ++fd) {
        const char is_served = FD_ISSET(fd, &svc_fdset) != 0;
        if (is_served && !is_watched[fd])
            rt_handle_fd(RT_READ, serve_descriptor, fd, (void *)(intptr_t)fd);
        else if (!is_served && is_watched[fd])
            rt_forget_fd(fd);
        is_watched[fd] = is_served;
    }
}

static void serve_descriptor(void *argument) {
    svc_getreq_common((int)(intptr_t)argument);
    follow_descriptors();
}

/* A socket becomes a transport of the RPC library: a datagram one, or one that listens. */
static int serve_socket(const rvzd_socket_desc_t *desc) {
    SVCXPRT *transport;
    if (desc->protocol == RVZD_PROTOCOL_UDP) {
        transport = svc_dg_create(desc->fd, 0, 0);
    } else {
        listen(desc->fd, SOMAXCONN);
        transport = svc_vc_create(desc->fd, 0, 0);
    }
    return transport != NULL && svc_reg(transport, program, version, dispatch, NULL);
}

/* The sockets come in any order, of both transports and both address families. A registration is for one transport, and
   takes the sockets of both families: so they are sorted by transport, and each that has any is registered once. */
static tbs_status_t register_transport(const rvzd_socket_desc_t *descs, uint32_t count, rvzd_protocol_in_t protocol) {
    const rvzd_rpc_trait_t trait = {program, version, protocol};
    rvzd_socket_desc_t own[sockets_max];
    int32_t own_count = 0;
    for (uint32_t i = 0; i < count; ++i)
        if (descs[i].protocol == protocol)
            own[own_count++] = descs[i];
    return own_count > 0 ? rvzd_register_server(NULL, &trait, &any_uuid, "", own, own_count) : TBS_ST_OK;
}

/* One for each ":" of the start switch, which is the last argument. */
static int socket_count(const char *start_switch) {
    int colons = 0;
    for (; *start_switch != '\0'; ++start_switch)
        colons += *start_switch == ':';
    return colons;
}

static tbs_status_t set_up(int *argc, char **argv) {
    rvzd_socket_desc_t descs[sockets_max];
    uint32_t count = 0;
    if (socket_count(argv[*argc - 1]) > sockets_max)
        return TBS_ST_INVALID_ARG;
    tbs_status_t status = rvzd_server_get_sockets(argc, argv, descs, &count);
    for (uint32_t i = 0; status == TBS_ST_OK && i < count; ++i)
        if (!serve_socket(&descs[i]))
            status = TBS_ST_ERROR;
    follow_descriptors();
    if (status == TBS_ST_OK)
        status = register_transport(descs, count, RVZD_PROTOCOL_UDP);
    if (status == TBS_ST_OK)
        status = register_transport(descs, count, RVZD_PROTOCOL_TCP);
    return status;
}

int main(int argc, char **argv) {
    rvzd_common_server_init(argc, argv, NULL);
    const tbs_status_t status = set_up(&argc, argv);
    if (status != TBS_ST_OK) {
        fprintf(stderr, "%s: cannot serve: %s\n", argv[0], tbs_strerror(status));
        return 1;
    }
    /* When the daemon goes, the lifeline is cut; that is raised out of the loop, and lands here. */
    pfm_frame_t frame;
    frame.code = sigsetjmp(frame.jump, 1);
    if (pfm_cleanup_start(&frame, 0))
        return 0;
    rt_run();
    pfm_cleanup_rls(&frame);
    return 0;
}
