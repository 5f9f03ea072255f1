// Starting real processes.
#pragma once

#include <functional>
#include <map>
#include <vector>

#include <server/broker/launcher.h>
#include <server/broker/server_table.h>
#include <server/loop/unique_fd.h>
#include <support/sysutl.h>
#include <uv.h>

namespace velia::server {

class ProcessLauncher : public Launcher {
public:
    using OnExit = std::function<void(int32_t pid, const ServerTable::ExitStatus &status)>;

    // Servers get one socket for each of their transports on each of `addresses`.
    ProcessLauncher(uv_loop_t *loop, std::vector<ks_sockaddr_storage_t> addresses, OnExit on_exit);

    LaunchResult launch(const Service &service) override;
    void cut_lifeline(int32_t pid) override;
    int kill_now(int32_t pid) override;
    bool exists(int32_t pid) override;
    bool waits_for_calls(int32_t pid, const std::vector<ServedPort> &ports, int64_t age_ms) override;

private:
    struct Child;

    bool open_sockets(const Service &service, std::vector<UniqueFd> &sockets, std::string &start_switch,
                      LaunchResult &failure) const;
    LaunchResult spawn(const Service &service, const std::vector<UniqueFd> &sockets, UniqueFd lifeline_of_server,
                       UniqueFd lifeline_of_ours, std::string start_switch);

    uv_loop_t *loop_;
    std::vector<ks_sockaddr_storage_t> addresses_;
    OnExit on_exit_;
    std::map<int32_t, UniqueFd> lifelines_; // our end, by process
};

} // namespace velia::server
