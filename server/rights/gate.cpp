// A caller who is known has what its user and process have, and nothing by its address; all others have what their
// address has, wherever they are.
#include <server/rights/gate.h>

#include <unistd.h>

namespace velia::server {

namespace {

constexpr int32_t pid_of_init = 1;

// A caller who is no administrator, and reports of no process.
constexpr uint32_t rights_of_this_host = ACCESS_READ | ACCESS_REGISTER | ACCESS_WRITE;

uint32_t rights_of_known(const KnownCaller &known) {
    const bool is_administrator = known.uid == 0 || known.uid == geteuid();
    return rights_of_this_host | (is_administrator ? uint32_t{ACCESS_ADMINISTER} : 0U);
}

uint32_t access_for(Right right) {
    switch (right) {
    case Right::read:
        return ACCESS_READ;
    case Right::enroll:
        return ACCESS_REGISTER;
    case Right::write:
        return ACCESS_WRITE;
    default:
        return ACCESS_ADMINISTER;
    }
}

} // namespace

bool Gate::permits(const Demand &demand, const Caller &caller) const {
    const Right right = right_to(demand.procedure, demand.operation);
    if (right == Right::meet)
        return true;
    if (right == Right::report && demand.pid <= pid_of_init)
        return false;
    if (right == Right::report)
        return caller.known ? caller.known->pid == demand.pid : proves_server_ && proves_server_(demand.pid, caller);
    const uint32_t rights = caller.known ? rights_of_known(*caller.known) : rights_of(lines_, caller.peer);
    return (rights & access_for(right)) != 0;
}

} // namespace velia::server
