// The broker's table: which servers there are, who may have them, when one is started and when one has to go. It
// neither reads a clock nor touches a process nor a socket: time comes as an argument, processes come and go through a
// Launcher, answers leave through the function given with the question.
#pragma once

#include <map>
#include <optional>

#include <server/broker/launcher.h>
#include <server/broker/process.h>

namespace velia::server {

enum {
    PROCESSES_MAX = 4096,
    WAITERS_MAX = 1024,     // of all processes; beyond it a find is answered with TBS_ST_TRY_AGAIN,
    HOST_WAITERS_MAX = 256, // and beyond this, one of a host that has so many
    SERVER_PATH_MAX = 1023, // a longer one would not fit the records of a server list
};

class ServerTable {
public:
    explicit ServerTable(Launcher &launcher) : launcher_(launcher) {}

    // Takes over a configuration: services that it still holds keep their servers, the others' are ended.
    void configure(const std::vector<Service> &services, Moment now);

    // The answer comes now or when the server has registered or failed to.
    void find(const FindRequest &request, Moment now, const FindDone &done);

    struct RegisterRequest {
        rvzd_rpc_trait_t trait = {};
        tbs_uuid_t uuid = {};
        std::string path;
        rvzd_server_port_list_t ports = {};
        int32_t pid = 0;
        std::optional<uid_t> user =
            {}; // whose process it is; none: one that the daemon started, from where it cannot be told
    };
    tbs_status_t register_server(const RegisterRequest &request, Moment now);

    // `may_end` : the server keeps nothing worth waiting for, and can be ended without its idle time.
    tbs_status_t report_idle(int32_t pid, bool may_end, Moment now);
    tbs_status_t report_busy(int32_t pid, Moment now);
    tbs_status_t add_alternate_uuid(int32_t pid, const tbs_uuid_t &uuid);
    tbs_status_t keep_sched_info(int32_t pid, const SchedInfo &info);

    // Servers are named by their program's path or its last component.
    tbs_status_t toggle_restart(const std::string &name, bool enable, Moment now);

    struct ExitStatus {
        int64_t code = 0;
        int signal_number = 0;
    };
    void process_exited(int32_t pid, const ExitStatus &status, Moment now);

    // Does all that has become due, and says when to come again.
    void run_due(Moment now);
    std::optional<Moment> next_due() const;

    // Ends all servers of ours and starts no more.
    void shut_down(Moment now);
    void kill_remaining();
    bool has_children() const;

    // Whether the daemon started it, and it has not ended.
    bool is_child(int32_t pid) const;

    const std::map<int32_t, Process> &processes() const { return processes_; }

private:
    // One step of the table: when it has ended, the table has to be sound.
    class Step {
    public:
        explicit Step(const ServerTable &table) : table_(table) {}
        ~Step() { table_.require_sound(); }
        Step(const Step &) = delete;
        Step &operator=(const Step &) = delete;

    private:
        const ServerTable &table_;
    };

    // Ends the daemon if the parts contradict each other. It costs what every find costs: a look at each process.
    void require_sound() const;

    using ServicePointer = std::shared_ptr<ServiceState>;

    // Look-up, in server_table.cpp.
    ServicePointer service_of(const rvzd_rpc_trait_t &trait) const;
    Process *self_started_for(const FindRequest &request);
    bool may_serve(const rvzd_rpc_trait_t &trait, std::optional<uid_t> user) const;
    Process *process_for(const ServicePointer &service, const FindRequest &request);
    void find_in_service(const ServicePointer &service, const FindRequest &request, Moment now, const FindDone &done);
    void serve(Process &process, const FindRequest &request, Moment now, const FindDone &done);
    void offer(Process &process, const Registration &registration, const FindRequest &request, Moment now,
               const FindDone &done);
    uint32_t count_of(const ServicePointer &service) const;
    size_t waiter_count() const;
    size_t waiter_count_of(const Sender::Host &host) const;

    // Reports, in reports.cpp.
    Process *find_process(int32_t pid);
    void forget_former(const RegisterRequest &request);
    bool is_welcome(const RegisterRequest &request, const Process *process);
    void answer_waiters(Process &process, const Registration &registration, Moment now);

    // Life and death, in life_cycle.cpp.
    Process *start(const ServicePointer &service, const FindRequest &request, Moment now);
    void end(Process &process, Moment now);
    void mark_down(ServiceState &service, Moment now);
    void fail_waiters(Process &process);
    void take_offer_back(Process &process, Moment now);
    void run_due(Process &process, Moment now);
    void start_residents(Moment now);
    void after_resident_exit(const ServicePointer &service, Moment started, Moment now);
    void scrub(Moment now);
    std::optional<Moment> due_of(const Process &process) const;

    Launcher &launcher_;
    std::vector<ServicePointer> services_;
    std::map<int32_t, Process> processes_;
    uint32_t last_cookie_ = 0;
    Moment next_scrub_ = 0;
    bool is_shutting_down_ = false;
};

} // namespace velia::server
