// Making the process of a service: as who its line says, with that user's groups and no others, with an environment of
// its own, and with no descriptor but those that it is given.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <server/config/service.h>
#include <server/loop/unique_fd.h>

namespace velia::server {

// As whom a service runs.
struct Account {
    bool is_daemons = true; // nothing is changed
    uid_t user = 0;
    gid_t group = 0;
    std::vector<gid_t> groups;
    std::string name; // empty: the user has no entry
    std::string home = "/";
    std::string shell = "/bin/sh";
};

// Asks the system's files of users, which may be somewhere on the network: not for the loop. Without a group of its own
// in the line a service has its user's: none, where the user has no entry to tell it.
std::optional<Account> account_of(const Service &service);

// The accounts of services, as they were when the configuration was read.
class Accounts {
public:
    Accounts() = default;
    explicit Accounts(const std::vector<Service> &services);

    const std::optional<Account> &of(const Service &service) const;

private:
    using Line = std::pair<std::optional<uid_t>, std::optional<gid_t>>;
    std::map<Line, std::optional<Account>> of_line_;
};

// Of the daemon's environment what the system's own programs and this suite go by; who the user is, and the usual path.
std::vector<std::string> environment_of(const Account &account);

struct ProcessRequest {
    const std::vector<std::string> &words; // the program's path first
    const std::vector<std::string> &environment;
    const Account &account;
    const std::vector<int> &descriptors; // in the process 0, 1, 2 ...
    bool leads_session = false;          // with a group of processes that can be ended as one
    bool holds_term = false;             // SIGTERM waits until it asks for it
};

// The number of the process that runs the program by now; negative, with the reason in *error_number, for none.
pid_t start_process(const ProcessRequest &request, int *error_number);

// The same in two steps, for who starts several: each has the program once a processor comes to it, which is not waited
// for in between.
struct BegunProcess {
    pid_t pid = -1;
    UniqueFd error_pipe;
};
BegunProcess begin_process(const ProcessRequest &request, int *error_number);
pid_t finish_process(const BegunProcess &begun, int *error_number);

} // namespace velia::server
