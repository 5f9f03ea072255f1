// RPC clients on libtirpc, for both families and both transports, and the words of their failures.
#include <support/ks.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <csignal>
#include <netinet/tcp.h>
#include <poll.h>
#include <unistd.h>

#include <support/imsg.h>

namespace {

constexpr int connect_timeout_ms = 25000;
constexpr size_t error_text_size = 512;
constexpr u_int datagram_size = 8800; // of send and receive buffers; a reply has at most 8744 bytes

thread_local ks_rpc_createerr_t creation_error;

CLIENT *fail(clnt_stat stat, int error_number) {
    creation_error = {stat, error_number};
    return nullptr;
}

// libtirpc tells why in a record of its own, whose errno it does not always fill.
CLIENT *fail_as_library_says(int error_number) {
    const auto &error = rpc_createerr;
    const clnt_stat stat = error.cf_stat != RPC_SUCCESS ? error.cf_stat : RPC_SYSTEMERROR;
    return fail(stat, error.cf_error.re_errno != 0 ? error.cf_error.re_errno : error_number);
}

netbuf as_netbuf(const sockaddr *address) {
    const socklen_t size = sysutl_sockaddr_size(address);
    return {size, size, const_cast<sockaddr *>(address)};
}

// 0, or the errno with which the connection failed.
int wait_for_connection(int fd) {
    pollfd waiting = {fd, POLLOUT, 0};
    int ready;
    do
        ready = poll(&waiting, 1, connect_timeout_ms);
    while (ready < 0 && errno == EINTR);
    if (ready <= 0)
        return ready == 0 ? ETIMEDOUT : errno;
    int error_number = 0;
    socklen_t length = sizeof error_number;
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error_number, &length) == 0 ? error_number : errno;
}

int connect_bounded(int fd, const sockaddr *address) {
    sysutl_set_socket_nonblocking(fd, 1);
    int error_number = 0;
    if (connect(fd, address, sysutl_sockaddr_size(address)) != 0)
        error_number = errno == EINPROGRESS ? wait_for_connection(fd) : errno;
    sysutl_set_socket_nonblocking(fd, 0);
    return error_number;
}

// Opens and connects a socket; 0 or an errno. *socket_fd is -1 unless it stands.
int open_connection(const sockaddr *address, int *socket_fd) {
    *socket_fd = -1;
    const int fd = socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return errno;
    const int error_number = connect_bounded(fd, address);
    if (error_number != 0) {
        close(fd);
        return error_number;
    }
    *socket_fd = fd;
    return 0;
}

CLIENT *client_on_connection(const sockaddr *address, uint32_t program, uint32_t version, int fd, uint32_t send_size,
                             uint32_t receive_size) {
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const netbuf server = as_netbuf(address);
    CLIENT *client = clnt_vc_create(fd, &server, program, version, send_size, receive_size);
    return client != nullptr ? client : fail_as_library_says(errno);
}

CLIENT *open_tcp_client(const sockaddr *address, uint32_t program, uint32_t version, int *socket_fd, uint32_t send_size,
                        uint32_t receive_size) {
    const int error_number = open_connection(address, socket_fd);
    if (error_number != 0)
        return fail(RPC_SYSTEMERROR, error_number);
    CLIENT *client = client_on_connection(address, program, version, *socket_fd, send_size, receive_size);
    if (client == nullptr) {
        close(*socket_fd);
        *socket_fd = -1;
        return nullptr;
    }
    clnt_control(client, CLSET_FD_CLOSE, nullptr);
    return client;
}

// What creation needs is fixed by address and program; what remains is the transport's name.
CLIENT *create_by_address(const sockaddr *address, uint32_t program, uint32_t version, bool tcp) {
    int fd = -1;
    if (tcp)
        return open_tcp_client(address, program, version, &fd, 0, 0);
    CLIENT *client = ks_clntudp_create_sockaddr(address, program, version, 3, 0, &fd);
    if (client != nullptr)
        clnt_control(client, CLSET_FD_CLOSE, nullptr);
    return client;
}

} // namespace

CLIENT *ks_clntudp_create_sockaddr(const struct sockaddr *address, uint32_t program, uint32_t version,
                                   int32_t retransmission_s, int32_t retransmission_us, int *socket_fd) {
    const bool opens = *socket_fd < 0;
    if (opens)
        *socket_fd = socket(address->sa_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (*socket_fd < 0)
        return fail(RPC_SYSTEMERROR, errno);
    const netbuf server = as_netbuf(address);
    CLIENT *client = clnt_dg_create(*socket_fd, &server, program, version, datagram_size, datagram_size);
    if (client == nullptr) {
        fail_as_library_says(errno);
        if (opens) {
            close(*socket_fd);
            *socket_fd = -1;
        }
        return nullptr;
    }
    timeval retransmission = {retransmission_s, retransmission_us};
    clnt_control(client, CLSET_RETRY_TIMEOUT, reinterpret_cast<char *>(&retransmission));
    return client;
}

CLIENT *ks_clnttcp_create_sockaddr(const struct sockaddr *address, uint32_t program, uint32_t version, int *socket_fd,
                                   uint32_t send_size, uint32_t receive_size) {
    if (*socket_fd < 0)
        return open_tcp_client(address, program, version, socket_fd, send_size, receive_size);
    return client_on_connection(address, program, version, *socket_fd, send_size, receive_size);
}

CLIENT *sysutl_clnttcp_create_ext(const struct sockaddr *address, uint32_t program, uint32_t version, int *socket_fd,
                                  uint32_t send_size, uint32_t receive_size) {
    return open_tcp_client(address, program, version, socket_fd, send_size, receive_size);
}

CLIENT *ks_clnt_create(const char *host, uint32_t program, uint32_t version, const char *protocol_name) {
    const bool tcp = strcmp(protocol_name, "tcp") == 0;
    if (!tcp && strcmp(protocol_name, "udp") != 0)
        return fail(RPC_UNKNOWNPROTO, 0);
    addrinfo *addresses = nullptr;
    if (sysutl_host_addr(host, nullptr, tcp ? SOCK_STREAM : SOCK_DGRAM, &addresses) != 0)
        return fail(RPC_UNKNOWNHOST, 0);
    CLIENT *client = nullptr;
    for (const addrinfo *entry = addresses; entry != nullptr && client == nullptr; entry = entry->ai_next) {
        // The program's port is asked of the host's port mapper.
        netbuf found = as_netbuf(entry->ai_addr);
        sockaddr_in *ipv4 = reinterpret_cast<sockaddr_in *>(entry->ai_addr);
        if (entry->ai_family != AF_INET)
            continue;
        const u_short port = pmap_getport(ipv4, program, version, tcp ? IPPROTO_TCP : IPPROTO_UDP);
        if (port == 0) {
            fail_as_library_says(ECONNREFUSED);
            continue;
        }
        ipv4->sin_port = htons(port);
        client = create_by_address(static_cast<const sockaddr *>(found.buf), program, version, tcp);
    }
    freeaddrinfo(addresses);
    return client;
}

void ks_clnt_perror(CLIENT *client, const char *text) {
    rpc_err error = {};
    clnt_geterr(client, &error);
    if (error.re_status == RPC_CANTSEND || error.re_status == RPC_CANTRECV)
        imsg_print(IMSG_ERROR, "%s: %s; errno = %s\n", IMSG_FORMAT, text, clnt_sperrno(error.re_status),
                   imsg_strerror(error.re_errno));
    else
        imsg_print(IMSG_ERROR, "%s: %s\n", IMSG_FORMAT, text, clnt_sperrno(error.re_status));
}

const char *ks_clnt_spcreateerror(const char *text) {
    static thread_local char buffer[error_text_size];
    const char *reason = clnt_sperrno(creation_error.stat);
    if (creation_error.error_number != 0)
        snprintf(buffer, sizeof buffer, "%s: %s - %s", text, reason, imsg_strerror(creation_error.error_number));
    else
        snprintf(buffer, sizeof buffer, "%s: %s", text, reason);
    return buffer;
}

void ks_clnt_pcreateerror(const char *text) {
    imsg_print(IMSG_ERROR, "%s\n", IMSG_FORMAT, ks_clnt_spcreateerror(text));
}

ks_rpc_createerr_t *ks_rpc_get_createerr(void) {
    return &creation_error;
}

tbs_status_t ks_hostdata_dir(char *buffer, size_t length, const char *file_name) {
    const char *root = getenv("VELIA_ROOT");
    if (root == nullptr || *root == '\0')
        root = "/var/lib/velia";
    const int written = snprintf(buffer, length, "%s/host/data/%s", root, file_name);
    return written >= 0 && static_cast<size_t>(written) < length ? TBS_ST_OK : TBS_ST_INVALID_ARG;
}

int ks_web_gui(void) {
    const char *answer = getenv("VELIA_WEB_GUI");
    return answer != nullptr && *answer != '\0';
}

// A server lives without its starter's terminal and must not end because a peer closed its connection.
void ks_system_init(int /*argument_count*/, char ** /*arguments*/, char * /*name*/) {
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, nullptr);
}
