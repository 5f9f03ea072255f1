#include <tests/system/support/population.h>

#include <csignal>

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace velia::system_test {

namespace {

constexpr timeval call_timeout = {10, 0};

pid_t start_idle_process() {
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    while (getppid() == parent)
        pause();
    _exit(0);
}

// In the name of another process, which the operation of the library would not do.
tbs_status_t send_registration(rvzd_handle_t *handle, rvzd_register_server_req_t &request) {
    rvzd_null_reply_t reply = {};
    const auto outcome = clnt_call(rvzd_get_rpc_clnt(handle), RVZD_PROC_REGISTER_SERVER,
                                   reinterpret_cast<xdrproc_t>(xdr_rvzd_register_server_req_t), &request,
                                   reinterpret_cast<xdrproc_t>(xdr_rvzd_null_reply_t), &reply, call_timeout);
    return outcome == RPC_SUCCESS ? reply.header.status : tbs_status_t{TBS_ST_RPC_FAILED};
}

} // namespace

Population::~Population() {
    for (const pid_t pid : processes_) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

tbs_status_t Population::add(rvzd_handle_t *handle, const std::string &path) {
    if (count_ == processes_.size() * servers_of_a_process)
        processes_.push_back(start_idle_process());
    const auto number = static_cast<uint32_t>(count_++);
    rvzd_register_server_req_t request = {};
    request.header = {getpid() * 100000ULL + number, number};
    request.trait = {first_program + number, 1, RVZD_PROTOCOL_TCP};
    request.path = const_cast<char *>(path.c_str());
    request.ports = {1, {{AF_INET, 1000 + number}, {0, 0}}};
    request.pid = processes_.back();
    return send_registration(handle, request);
}

} // namespace velia::system_test
