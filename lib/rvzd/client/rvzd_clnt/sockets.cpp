// The one allocator of sockets, for clients and servers alike: it honours the site's address family restriction and the
// port rules of the programs that have them.
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <unistd.h>

#include <common/trace.h>
#include <common/with.h>
#include <rvzd/client/rvzd_clnt/rvzd_clnt.h>
#include <support/env.h>
#include <support/strutl.h>
#include <veliaxdr/rvzd_handle.h>

using namespace velia;
using namespace velia::rvzd_clnt;

const char *const rvzd_protocol_names[RVZD_PROTOCOL_NAMES_COUNT] = {nullptr, "udp", "tcp"};

namespace {

constexpr size_t env_size = 256;

enum class BindResult { bound, failed, exhausted };

struct BindRequest {
    int fd;
    sockaddr *address;
    socklen_t length;
    uint64_t program;
    int use_range;
};

bool bind_to(const BindRequest &request, uint16_t port) {
    sysutl_sockaddr_set_port(request.address, htons(port));
    return bind(request.fd, request.address, request.length) == 0;
}

// Walks the range upwards, whatever the reason why a bind fails. The counter has 16 bits: behind 65535 comes port 0,
// which the system binds at will. Where even that fails no port can be had, and the walk ends instead of going round.
BindResult bind_in_range(const BindRequest &request, uint16_t low, uint16_t high) {
    for (uint32_t port = low; port <= high; ++port)
        if (bind_to(request, static_cast<uint16_t>(port)))
            return BindResult::bound;
    const bool wraps = low <= high && high == UINT16_MAX;
    return wraps && bind_to(request, 0) ? BindResult::bound : BindResult::exhausted;
}

BindResult bind_by_rule(const BindRequest &request, uint16_t &low, uint16_t &high, int &error_number) {
    int32_t strict = 0;
    if (request.use_range && rvzd_bindport_has_port_range(request.program, &low, &high, &strict))
        return bind_in_range(request, low, high);
    if (bind(request.fd, request.address, request.length) == 0)
        return BindResult::bound;
    error_number = errno;
    return BindResult::failed;
}

// True when IVL_IP_VERSION names the other family; told as a warning.
bool family_is_forbidden(int family) {
    char text[env_size];
    if (getenv_safe("IVL_IP_VERSION", text, sizeof text, 0) == nullptr)
        return false;
    const long version = strtol(text, nullptr, 10);
    if (version == 4 && family != AF_INET) {
        imsg_print(IMSG_WARNING, &_rvzd_rvzd_msg_table, RVZD_MSG_IPV4_ONLY);
        return true;
    }
    if (version == 6 && family != AF_INET6) {
        imsg_print(IMSG_WARNING, &_rvzd_rvzd_msg_table, RVZD_MSG_IPV6_ONLY);
        return true;
    }
    return false;
}

tbs_status_t bind_and_describe(int fd, int family, uint64_t program, int use_range, int report,
                               rvzd_socket_desc_t &desc) {
    ks_sockaddr_storage_t address;
    sysutl_sockaddr_any_init(family, &address);
    if (rvzd_bindport(fd, &address.base, sysutl_sockaddr_size(&address.base), program, use_range, report) != TBS_ST_OK)
        return TBS_ST_ERROR;
    socklen_t length = sizeof address;
    if (getsockname(fd, &address.base, &length) != 0) {
        if (report)
            imsg_print(IMSG_ERROR, &_rvzd_rvzd_msg_table, RVZD_MSG_GETSOCKNAME, imsg_strerror(errno));
        return TBS_ST_ERROR;
    }
    desc.addr = address;
    return TBS_ST_OK;
}

const char *family_word(int family) {
    if (family == AF_INET)
        return "AF_INET";
    return family == AF_INET6 ? "AF_INET6" : "UNKNOWN";
}

const char *protocol_word(rvzd_protocol_in_t protocol) {
    if (protocol == RVZD_PROTOCOL_UDP)
        return "UDP";
    return protocol == RVZD_PROTOCOL_TCP ? "TCP" : "UNKNOWN";
}

} // namespace

tbs_status_t rvzd_bindport(int fd, struct sockaddr *address, socklen_t length, uint64_t program, int use_range,
                           int report) {
    uint16_t low = 0;
    uint16_t high = 0;
    int error_number = 0;
    // The lock is given back before anything is printed.
    const auto result = with_lock(call_lock, [&] {
        return bind_by_rule({fd, address, length, program, use_range}, low, high, error_number);
    });
    switch (result) {
    case BindResult::bound:
        return TBS_ST_OK;
    case BindResult::exhausted:
        imsg_print(IMSG_ERROR, &_rvzd_rvzd_msg_table, RVZD_MSG_RANGE_EXHAUSTED, static_cast<int>(low),
                   static_cast<int>(high));
        return TBS_ST_NO_PORT;
    default:
        if (report)
            imsg_print_shared(IMSG_ERROR, subsystem, &_tbs_cmsg_tbs_msg_table, TBS_MSG_OPERATION_FAILED, "bind",
                              imsg_strerror(error_number));
        return TBS_ST_ERROR;
    }
}

tbs_status_t velia::rvzd_clnt::rvzd_alloc_one_socket(int family, int socket_type, uint64_t program, int use_range,
                                                     int report, rvzd_socket_desc_t &desc) {
    require_as(family == AF_INET || family == AF_INET6, "family == AF_INET || family == AF_INET6", 5847);
    require_as(socket_type == SOCK_STREAM || socket_type == SOCK_DGRAM,
               "protocol == SOCK_STREAM || protocol == SOCK_DGRAM", 5848);
    desc.fd = -1;
    if (family_is_forbidden(family))
        return TBS_ST_ERROR;
    // A raise must not come between the open descriptor and its place in the record.
    return with_inhibit([&]() -> tbs_status_t {
        const int fd = socket(family, socket_type, 0);
        if (fd < 0)
            return TBS_ST_ERROR;
        const auto status = bind_and_describe(fd, family, program, use_range, report, desc);
        if (status != TBS_ST_OK) {
            close(fd);
            return status;
        }
        desc.fd = fd;
        desc.protocol = socket_type == SOCK_DGRAM ? RVZD_PROTOCOL_UDP : RVZD_PROTOCOL_TCP;
        return status;
    });
}

tbs_status_t rvzd_alloc_sockets(int socket_type, int use_range, uint64_t program, rvzd_socket_desc_t *desc,
                                uint32_t *count) {
    *count = 0;
    if (rvzd_alloc_one_socket(AF_INET6, socket_type, program, use_range, 0, *desc) != TBS_ST_OK) {
        if (is_traced(subsystem, 1))
            imsg_print(IMSG_ERROR, &_rvzd_rvzd_msg_table, RVZD_MSG_NO_IPV6_SOCKET);
        if (rvzd_alloc_one_socket(AF_INET, socket_type, program, use_range, 1, *desc) != TBS_ST_OK) {
            imsg_print(IMSG_ERROR, &_rvzd_rvzd_msg_table, RVZD_MSG_NO_SOCKET, "");
            return TBS_ST_ERROR;
        }
    }
    *count = 1;
    if (is_traced(subsystem, 3)) {
        imsg_print(IMSG_PLAIN, &_rvzd_rvzd_msg_table, RVZD_MSG_SOCKET_ALLOCATED);
        rvzd_print_socket_info(desc);
    }
    return TBS_ST_OK;
}

void rvzd_print_socket_info(const rvzd_socket_desc_t *desc) {
    const int family = desc->addr.base.sa_family;
    uint16_t port = 0;
    if (family == AF_INET || family == AF_INET6)
        sysutl_sockaddr_get_port(&desc->addr.base, &port);
    char descriptor[16];
    strutl_snprintf(descriptor, sizeof descriptor, "%d", desc->fd);
    imsg_print(IMSG_PLAIN, &_rvzd_rvzd_msg_table, RVZD_MSG_SOCKET_INFO, family_word(family), descriptor,
               static_cast<int>(ntohs(port)), protocol_word(desc->protocol));
}
