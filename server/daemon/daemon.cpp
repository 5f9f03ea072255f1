// Everything that happens in the daemon is an event of its loop: a datagram, a connection, a signal, a process's end,
// or a moment of the table's that has come.
#include <server/daemon/daemon.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <new>

#include <server/daemon/background.h>
#include <server/daemon/log.h>
#include <server/daemon/metrics.h>
#include <server/messages.h>
#include <server/rights/socket_owner.h>
#include <support/sysutl.h>
#include <support/tbs.h>

namespace velia::server {

namespace {

constexpr uint64_t stop_grace_ms = 5000; // for servers to end by their lifelines; then they are killed
constexpr uint64_t kill_grace_ms = 2000;
constexpr uint64_t role_delay_ms = 100;
constexpr Worker::Shape reader_shape = {{1, 1, 1}, 1, 0};
constexpr uint32_t own_procedures_from = 10000; // which no daemon of the older version has
constexpr const char *client_file_name = "clients";
constexpr const char *role_file_name = "rgy_svr.conf";

// Data that only this daemon reads and writes.
std::string private_file(const char *name) {
    std::array<char, TBS_PATH_SIZE> path;
    return tbs_product_host_priv_dir(path.data(), name) == TBS_ST_OK ? path.data() : "";
}

void tell_of_store(const Configuration &configuration) {
    if (!is_registry_kept_in(configuration.registry_database) ||
        !is_registry_read_on_in(configuration.registry_replica))
        imsg_print(IMSG_WARNING,
                   "The registry's store is another one in the configuration: it is taken at the next "
                   "start.\n",
                   IMSG_FORMAT);
}

ConnectionLimits limits_of(const Options &options) {
    ConnectionLimits limits;
    limits.connections_max = options.connections_max;
    limits.idle_ms = int64_t{options.idle_connection_s} * 1000;
    limits.request_ms = int64_t{options.request_s} * 1000;
    return limits;
}

} // namespace

Daemon::Daemon(uv_loop_t *loop, Listeners listeners, std::string config_file, const Configuration &configuration,
               const ServiceManager &manager)
    : loop_(loop), config_file_(std::move(config_file)), manager_(manager),
      launcher_(loop, listeners.server_addresses,
                [this](int32_t pid, const ServerTable::ExitStatus &status) { process_exited(pid, status); }),
      table_(launcher_), registry_(loop), client_keeper_(loop, private_file(client_file_name), clients_),
      broker_procedures_(table_, [this] { schedule(); }),
      host_procedures_(clients_, [this] { client_keeper_.save_soon(); }), registry_procedures_(registry_),
      gate_([this](int32_t pid, const Caller &caller) { return table_.is_child(pid) && owns_socket(pid, caller); }),
      site_procedures_(loop, registry_, gate_), status_procedures_(calls_, [this] { return figures(); }),
      scheduler_(loop), scheduler_procedures_(scheduler_, gate_), dispatcher_(RVZD_PROGRAM, RVZD_VERSION, gate_, {}),
      metrics_(loop,
               [this] {
                   const auto now = figures();
                   return metrics_text(now, registry_bytes(now.registry), calls_, time(nullptr));
               }),
      due_timer_(loop, [this] { run_due(); }), stop_timer_(loop, [this] { stop(); }),
      role_timer_(loop, [this] { registry_.follow_role_file(); }), reader_(loop, reader_shape) {
    for (auto &fd : listeners.udp)
        udp_endpoints_.push_back(std::make_unique<UdpEndpoint>(loop, std::move(fd), dispatcher_, reply_rate_));
    for (auto &fd : listeners.tcp)
        tcp_endpoints_.push_back(
            std::make_unique<TcpEndpoint>(loop, std::move(fd), dispatcher_, limits_of(configuration.options)));
    for (auto &local : listeners.local)
        tcp_endpoints_.push_back(
            std::make_unique<TcpEndpoint>(loop, std::move(local), dispatcher_, limits_of(configuration.options)));
    signals_.push_back(std::make_unique<SignalHandle>(loop, SIGHUP, [this] { reload(); }));
    for (const int signal_number : {SIGTERM, SIGINT})
        signals_.push_back(std::make_unique<SignalHandle>(loop, signal_number, [this] { stop(); }));
    dispatcher_.count_in(calls_);
    configured_.started = time(nullptr);
    watch_role();
    apply(configuration, Accounts(configuration.services));
    registry_.take_role_at_once();
    if (is_registry_shared())
        scheduler_.open_shared(registry_database(), sysutl_myhostname());
    else
        scheduler_.open();
}

// The role's file is written in place: it is looked at when its writer has had time to finish.
void Daemon::watch_role() {
    std::array<char, TBS_PATH_SIZE> directory;
    if (tbs_product_host_config_dir(directory.data(), "") == TBS_ST_OK)
        role_watch_ = std::make_unique<DirectoryWatch>(loop_, directory.data(), [this](const char *file_name) {
            if (strcmp(file_name, role_file_name) == 0 && stop_requests_ == 0)
                role_timer_.start(role_delay_ms);
        });
}

void Daemon::apply(const Configuration &configuration, Accounts accounts) {
    Log::set_options(configuration.log);
    metrics_.serve_at(configuration.metrics);
    launcher_.set_accounts(std::move(accounts));
    gate_.set_access(configuration.access);
    registry_.set_copy_interval(configuration.options.registry_copy_s);
    scheduler_.configure({configuration.tasks, configuration.notify_program, configuration.options.jobs_max,
                          configuration.options.catch_up_s, configuration.options.job_output_mib,
                          configuration.options.take_over_s, configuration.schedule});
    configured_.services = static_cast<uint32_t>(configuration.services.size());
    configured_.connections_max = configuration.options.connections_max;
    const uint32_t protocol = configuration.options.protocol;
    auto procedures = broker_procedures_.rows(protocol);
    for (const auto &more : {host_procedures_.rows(protocol), registry_procedures_.rows(), site_procedures_.rows(),
                             status_procedures_.rows(), scheduler_procedures_.rows()})
        procedures.insert(procedures.end(), more.begin(), more.end());
    if (protocol != RVZD_PROTOCOL_CURRENT)
        std::erase_if(procedures, [](const ServedProcedure &served) { return served.number >= own_procedures_from; });
    dispatcher_.set_procedures(procedures);
    for (const auto &endpoint : tcp_endpoints_)
        endpoint->set_limits(limits_of(configuration.options));
    table_.configure(configuration.services, monotonic_ms());
    schedule();
}

DaemonFigures Daemon::figures() const {
    DaemonFigures figures = configured_;
    for (const auto &endpoint : tcp_endpoints_)
        figures.connections += static_cast<uint32_t>(endpoint->connections());
    for (const auto &[pid, process] : table_.processes()) {
        ++figures.servers;
        figures.servers_busy += process.state == ProcessState::busy ? 1 : 0;
    }
    figures.registry = registry_.standing();
    figures.takes_updates = registry_.takes_updates();
    return figures;
}

// Names of users may be asked of another host, so a thread reads the configuration.
void Daemon::reload() {
    if (stop_requests_ > 0)
        return;
    manager_.send_reloading();
    reopen_log();
    struct Read {
        ConfigurationResult result;
        Accounts accounts;
    };
    const auto read = std::make_shared<Read>();
    reader_.submit_first({[read, file = config_file_] {
                              try {
                                  read->result = read_configuration(file, system_names());
                                  read->accounts = Accounts(read->result.configuration.services);
                              } catch (const std::bad_alloc &) {
                                  read->result.errors.push_back({MSG_CONFIG_READ_ERROR, 0, imsg_strerror(ENOMEM)});
                              }
                          },
                          [this, read] { take_configuration(read->result, std::move(read->accounts)); }});
}

void Daemon::take_configuration(const ConfigurationResult &result, Accounts accounts) {
    if (stop_requests_ > 0)
        return;
    if (result.errors.empty()) {
        apply(result.configuration, std::move(accounts));
        tell_of_store(result.configuration);
        registry_.take_role();
        print_configuration(config_file_, result.configuration, "is read again");
    } else {
        print_configuration_errors(config_file_, result.errors);
    }
    manager_.send_ready();
}

void Daemon::schedule() {
    const auto due = table_.next_due();
    if (!due) {
        due_timer_.stop();
        return;
    }
    due_timer_.start(static_cast<uint64_t>(std::max<int64_t>(*due - monotonic_ms(), 1)));
}

void Daemon::run_due() {
    table_.run_due(monotonic_ms());
    schedule();
}

void Daemon::process_exited(int32_t pid, const ServerTable::ExitStatus &status) {
    table_.process_exited(pid, status, monotonic_ms());
    schedule();
    finish_if_idle();
}

void Daemon::finish_if_idle() {
    if (stop_requests_ > 0 && !table_.has_children())
        uv_stop(loop_);
}

// Asked once, servers have time to end; asked again, or when the time is over, they are killed; after that nothing is
// waited for.
void Daemon::stop() {
    ++stop_requests_;
    if (stop_requests_ == 1) {
        manager_.send_stopping();
        table_.shut_down(monotonic_ms());
        udp_endpoints_.clear();
        tcp_endpoints_.clear();
        metrics_.close();
        registry_.stop();
        client_keeper_.save_now();
        scheduler_.stop();
        stop_timer_.start(stop_grace_ms);
    } else if (stop_requests_ == 2) {
        table_.kill_remaining();
        stop_timer_.start(kill_grace_ms);
    } else {
        uv_stop(loop_);
    }
    finish_if_idle();
}

void Daemon::run() {
    uv_run(loop_, UV_RUN_DEFAULT);
}

} // namespace velia::server
