// The daemon at work: endpoints, table and launcher on one event loop.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <server/broker/procedures.h>
#include <server/broker/process_launcher.h>
#include <server/broker/server_table.h>
#include <server/config/configuration.h>
#include <server/daemon/listeners.h>
#include <server/daemon/readiness.h>
#include <server/daemon/status.h>
#include <server/hosts/client_keeper.h>
#include <server/hosts/client_list.h>
#include <server/hosts/procedures.h>
#include <server/metrics/listener.h>
#include <server/registry/procedures.h>
#include <server/registry/service.h>
#include <server/registry/site_procedures.h>
#include <server/rights/gate.h>
#include <server/rpc/tcp_endpoint.h>
#include <server/rpc/udp_endpoint.h>
#include <server/scheduler/procedures.h>
#include <server/scheduler/scheduler.h>

namespace velia::server {

class Daemon {
public:
    Daemon(uv_loop_t *loop, Listeners listeners, std::string config_file, const Configuration &configuration,
           const ServiceManager &manager);

    // Serves until it is asked to end and its servers have.
    void run();

private:
    void apply(const Configuration &configuration, Accounts accounts);
    void reload();
    void take_configuration(const ConfigurationResult &result, Accounts accounts);
    void stop();
    void watch_role();
    void schedule();
    void run_due();
    void process_exited(int32_t pid, const ServerTable::ExitStatus &status);
    void finish_if_idle();

    DaemonFigures figures() const;

    CallFigures calls_; // goes last
    uv_loop_t *loop_;
    std::string config_file_;
    const ServiceManager &manager_;
    ProcessLauncher launcher_;
    ServerTable table_;
    RegistryService registry_;
    ClientList clients_;
    ClientKeeper client_keeper_;
    BrokerProcedures broker_procedures_;
    HostProcedures host_procedures_;
    RegistryProcedures registry_procedures_;
    Gate gate_;
    SiteProcedures site_procedures_;
    StatusProcedures status_procedures_;
    DaemonFigures configured_; // of the configuration
    Scheduler scheduler_;
    SchedulerProcedures scheduler_procedures_;
    Dispatcher dispatcher_;
    ReplyRate reply_rate_;
    std::vector<std::unique_ptr<UdpEndpoint>> udp_endpoints_;
    std::vector<std::unique_ptr<TcpEndpoint>> tcp_endpoints_;
    MetricsListener metrics_;
    TimerHandle due_timer_;
    TimerHandle stop_timer_;
    TimerHandle role_timer_;
    std::unique_ptr<DirectoryWatch> role_watch_;
    std::vector<std::unique_ptr<SignalHandle>> signals_;
    int stop_requests_ = 0;
    Worker reader_; // of the configuration, and of the system's users; goes first
};

} // namespace velia::server
