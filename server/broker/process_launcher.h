// Starting real processes.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <vector>

#include <server/broker/launcher.h>
#include <server/broker/server_table.h>
#include <server/broker/service_process.h>
#include <server/loop/handles.h>
#include <server/loop/unique_fd.h>
#include <support/sysutl.h>

namespace velia::server {

class ProcessLauncher : public Launcher {
public:
    using OnExit = std::function<void(int32_t pid, const ServerTable::ExitStatus &status)>;

    // Servers get one socket for each of their transports on each of `addresses`.
    ProcessLauncher(uv_loop_t *loop, std::vector<ks_sockaddr_storage_t> addresses, OnExit on_exit);
    ~ProcessLauncher() override;

    // Of the services that may be launched.
    void set_accounts(Accounts accounts) { accounts_ = std::move(accounts); }

    LaunchResult launch(const Service &service) override;
    void cut_lifeline(int32_t pid) override;
    int kill_now(int32_t pid) override;
    bool exists(int32_t pid) override;
    bool waits_for_calls(int32_t pid, const std::vector<ServedPort> &ports, int64_t age_ms) override;

private:
    class Output;

    bool open_sockets(const Service &service, std::vector<UniqueFd> &sockets, std::string &start_switch,
                      LaunchResult &failure) const;
    LaunchResult spawn(const Service &service, const std::vector<UniqueFd> &sockets, std::string start_switch);
    void take_ends();

    uv_loop_t *loop_;
    std::vector<ks_sockaddr_storage_t> addresses_;
    OnExit on_exit_;
    Accounts accounts_;
    std::map<int32_t, UniqueFd> children_; // by process our end of its lifeline, or none once that is cut
    std::map<uint64_t, std::unique_ptr<Output>> outputs_; // may outlive their process, whose own children write there
    uint64_t outputs_so_far_ = 0;
    SignalHandle end_signal_;
};

} // namespace velia::server
