#include <tests/system/support/population.h>

#include <csignal>

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace velia::system_test {

namespace {

constexpr timeval call_timeout = {10, 0};

// What a process of the population is to register.
struct Order {
    uint32_t number;
    char path[1024];
};

tbs_status_t send_registration(rvzd_handle_t *handle, rvzd_register_server_req_t &request) {
    rvzd_null_reply_t reply = {};
    const auto outcome = clnt_call(rvzd_get_rpc_clnt(handle), RVZD_PROC_REGISTER_SERVER,
                                   reinterpret_cast<xdrproc_t>(xdr_rvzd_register_server_req_t), &request,
                                   reinterpret_cast<xdrproc_t>(xdr_rvzd_null_reply_t), &reply, call_timeout);
    return outcome == RPC_SUCCESS ? reply.header.status : tbs_status_t{TBS_ST_RPC_FAILED};
}

// The operation of the library would do, but for ports that nobody listens at.
tbs_status_t register_as_ordered(rvzd_handle_t *handle, Order &order) {
    rvzd_register_server_req_t request = {};
    request.header = {getpid() * 100000ULL + order.number, order.number};
    request.trait = {Population::first_program + order.number, 1, RVZD_PROTOCOL_TCP};
    request.path = order.path;
    request.ports = {1, {{AF_INET, 1000 + order.number}, {0, 0}}};
    request.pid = getpid();
    return send_registration(handle, request);
}

[[noreturn]] void obey(rvzd_handle_t *handle, int orders) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    Order order;
    while (recv(orders, &order, sizeof order, 0) == static_cast<ssize_t>(sizeof order)) {
        const tbs_status_t status = register_as_ordered(handle, order);
        if (send(orders, &status, sizeof status, 0) != static_cast<ssize_t>(sizeof status))
            break;
    }
    _exit(0);
}

} // namespace

Population::~Population() {
    for (const Member &member : members_) {
        kill(member.pid, SIGKILL);
        waitpid(member.pid, nullptr, 0);
        close(member.orders);
    }
}

bool Population::add_member(rvzd_handle_t *handle) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        return false;
    const pid_t pid = fork();
    if (pid == 0) {
        close(ends[0]);
        obey(handle, ends[1]);
    }
    close(ends[1]);
    members_.push_back({pid, ends[0]});
    return pid > 0;
}

tbs_status_t Population::add(rvzd_handle_t *handle, const std::string &path) {
    if (count_ == members_.size() * servers_of_a_process && !add_member(handle))
        return TBS_ST_ERROR;
    Order order = {};
    order.number = static_cast<uint32_t>(count_++);
    path.copy(order.path, sizeof order.path - 1);
    const int orders = members_.back().orders;
    tbs_status_t status = TBS_ST_ERROR;
    const bool is_done = send(orders, &order, sizeof order, MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof order) &&
                         recv(orders, &status, sizeof status, 0) == static_cast<ssize_t>(sizeof status);
    return is_done ? status : tbs_status_t{TBS_ST_ERROR};
}

} // namespace velia::system_test
