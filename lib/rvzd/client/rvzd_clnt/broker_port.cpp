// The broker's port, the one bootstrap number of a site: a marker file, the service database, or the well-known port.
#include <arpa/inet.h>
#include <cstring>
#include <netdb.h>
#include <sys/stat.h>

#include <common/with.h>
#include <rvzd/client/rvzd_clnt/rvzd_clnt.h>
#include <support/fileutl.h>

using namespace velia;
using namespace velia::rvzd_clnt;

namespace {

constexpr char service_name[] = "rvzd";
constexpr char fallback_service_name[] = "ironvale";
constexpr char protocol_name[] = "udp";
constexpr char marker_file_name[] = ".rvzd_well_known_port";
constexpr uint16_t well_known_port = 371;

// Network order; 0 until something answered. A look-up that failed, for want of memory or descriptors, is no answer.
uint16_t rvzd_wk_port;

int look_up_socket_type(const char *protocol) {
    if (strcmp(protocol, "tcp") == 0)
        return SOCK_STREAM;
    return strcmp(protocol, "udp") == 0 ? SOCK_DGRAM : 0;
}

bool marker_stands(const char *file) {
    char path[TBS_PATH_SIZE];
    struct stat status;
    return tbs_product_host_priv_dir(path, file) == TBS_ST_OK && stat(path, &status) == 0;
}

// 0, or the resolver's code.
int port_of_service(const char *service, int socket_type, uint16_t &port) {
    addrinfo *addresses = nullptr;
    const int code = sysutl_host_addr(nullptr, service, socket_type, &addresses);
    if (code != 0)
        return code;
    const bool found = addresses != nullptr && sysutl_sockaddr_get_port(addresses->ai_addr, &port) == 0;
    if (addresses != nullptr)
        freeaddrinfo(addresses);
    return found ? 0 : EAI_SERVICE;
}

// True if there is no such entry; anything else means that nobody could look.
bool is_absent(int code) {
    return code == EAI_SERVICE || code == EAI_NONAME;
}

// `is_answer` says whether asking again would bring the same.
uint16_t find_port(bool &is_answer) {
    is_answer = true;
    const char *service;
    const char *protocol;
    const char *marker;
    uint16_t fallback;
    rvzdsvr_get_server_socket(&service, &protocol, &marker, &fallback);
    if (marker_stands(marker))
        return htons(fallback);
    const int socket_type = look_up_socket_type(protocol);
    uint16_t port;
    int code = port_of_service(service, socket_type, port);
    if (code == 0)
        return port;
    is_answer = is_absent(code);
    code = port_of_service(fallback_service_name, socket_type, port);
    if (code == 0)
        return port;
    is_answer = is_answer && is_absent(code);
    imsg_print(IMSG_WARNING, &_rvzd_rvzd_msg_table, RVZD_MSG_NO_SERVICE_PORT, service, protocol, gai_strerror(code),
               static_cast<int>(fallback));
    return htons(fallback);
}

} // namespace

tbs_status_t rvzd_get_port(const char * /*host*/, uint16_t *port, int /*family*/) {
    return with_lock(call_lock, [&] {
        bool is_answer = false;
        *port = rvzd_wk_port != 0 ? rvzd_wk_port : find_port(is_answer);
        if (is_answer)
            rvzd_wk_port = *port;
        return TBS_ST_OK;
    });
}

void rvzdsvr_get_server_socket(const char **service, const char **protocol, const char **file, uint16_t *port) {
    with_lock(call_lock, [&] {
        *service = service_name;
        *protocol = protocol_name;
        *file = marker_file_name;
        *port = well_known_port;
    });
}

int rvzdsvr_get_server_type(void) {
    return with_lock(call_lock, [] { return 0; });
}
