// What veliactl doctor looks at. A check is a row with one function, which tells what it found; each thing that it
// looked at is a finding, good or not.
#pragma once

#include <map>
#include <string>
#include <sys/stat.h>
#include <vector>

#include <cli/command.h>
#include <cli/site.h>
#include <support/ks.h>

namespace velia::cli {

enum class Health { ok, warn, fail };

struct HostFinding {
    Health health;
    std::string subject; // a host, a file, an address
    std::string finding;
    std::string advice; // empty where there is nothing to do
};

// What the daemon of a host answered, asked once.
struct HostAnswer {
    tbs_status_t status = TBS_ST_RPC_FAILED;
    int64_t ahead_s = 0; // of this host's clock, beyond what the question took
    RegistryState registry;

    bool is_there() const { return status == TBS_ST_OK; }
};

// One look at one host.
class Visit {
public:
    Visit(std::string host, bool is_here, const Settings &settings);

    const std::string &host() const { return host_; }
    bool is_here() const { return is_here_; }
    const Settings &settings() const { return settings_; }

    void ok(const std::string &subject, const std::string &finding);
    void warn(const std::string &subject, const std::string &finding, const std::string &advice);
    void fail(const std::string &subject, const std::string &finding, const std::string &advice);

    std::vector<HostFinding> take_findings();

    // Nothing is told of one that does not answer.
    const HostAnswer &ask(const std::string &host);

    // The other hosts of the site, as this host's files and its registry name them.
    const std::vector<std::string> &other_hosts();

private:
    std::string host_;
    bool is_here_;
    Settings settings_;
    std::vector<HostFinding> findings_;
    std::map<std::string, HostAnswer> answers_;
    std::vector<std::string> other_hosts_;
    bool has_other_hosts_ = false;
};

struct HostCheck {
    const char *name;
    bool is_of_this_host; // of its files: it cannot be made from elsewhere
    void (*look)(Visit &visit);
};

// Of a host's own files and addresses.
void look_at_names(Visit &visit);
void look_at_port(Visit &visit);
void look_at_directories(Visit &visit);
void look_at_private_files(Visit &visit);
void look_at_role_file(Visit &visit);
void look_at_local_road(Visit &visit);
void look_at_database(Visit &visit);

// Of what daemons answer.
void look_at_addresses(Visit &visit);
void look_at_daemon(Visit &visit);
void look_at_clients(Visit &visit);
void look_at_clocks(Visit &visit);
void look_at_terms(Visit &visit);
void look_at_copy(Visit &visit);
void look_at_hosts_file(Visit &visit);

// "host/priv/NAME" and its kin, below the root directory.
std::string path_below_root(const std::string &name);

} // namespace velia::cli
