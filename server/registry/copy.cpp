#include <server/registry/copy.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <strings.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <server/registry/look.h>
#include <server/registry/messages.h>
#include <server/registry/remote_source.h>
#include <server/registry/saved.h>
#include <server/registry/service.h>
#include <support/date.h>
#include <support/sysutl.h>
#include <veliaxdr/rgy_local.h>

namespace velia::server {

namespace {

constexpr const char *backup_setting = "backup";

// Before anything of another registry is copied, what this host may alone have is put aside.
void prepare(const Stamps &source, Store &store, const std::function<void()> &keep_former) {
    const tbs_uuid_t own = store.stamps(0).registry;
    const bool is_same_registry = tbs_uuid_eq(&source.registry, &own) != 0;
    const std::string origin = store.setting(origin_setting);
    if (origin == origin_master || (!is_same_registry && !origin.empty()))
        keep_former();
    if (!is_same_registry) {
        store.set_setting(origin_setting, "");
        store.begin_anew(source.registry);
    } else if (origin == origin_master) {
        store.set_setting(origin_setting, origin_copy);
    }
}

bool is_current(const Stamps &source, Store &store, rgy_db_t db) {
    const Stamps stamps = store.stamps(db);
    return tbs_uuid_eq(&source.registry, &stamps.registry) != 0 &&
           memcmp(&source.pair, &stamps.pair, sizeof stamps.pair) == 0;
}

// Whoever steps down behind a turn of the site has nothing that the next master has not.
bool is_alike(Source &source, Store &store) {
    for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db)
        if (!is_current(source.stamps(db), store, db))
            return false;
    return true;
}

// The first word of the hosts file, unless it is this host.
std::string master_of_site() {
    std::array<char, RVZD_HOST_NAME_MAX + 1> master = {};
    std::array<char, RVZD_HOST_NAME_MAX + 1> backup = {};
    size_t lengths[2];
    if (registry_prop_get_hostnames_local(master.size(), backup.size(), &lengths[0], &lengths[1], master.data(),
                                          backup.data()) != TBS_ST_OK)
        throw CopyError("the hosts file cannot be read");
    if (master[0] == '\0')
        throw CopyError("the hosts file names no master");
    if (strcasecmp(master.data(), sysutl_myhostname()) == 0)
        throw CopyError("the hosts file names this host");
    return master.data();
}

std::string now() {
    return date_fmt_token_date_time(time(nullptr));
}

void keep_former_registry(Store &store) {
    const std::string kept = free_name_for_former(registry_file());
    store.save_to(kept);
    imsg_print(IMSG_PLAIN, "The former registry of this host is kept in \"%s\".\n", IMSG_FORMAT, kept.c_str());
}

void copy_from(const std::string &master) {
    RemoteSource source(master);
    bool is_new = false;
    const auto store = open_sqlite_store(registry_file(), is_new);
    if (!is_listed(source.backup_hosts(), sysutl_myhostname())) {
        print_registry(IMSG_ERROR, MSG_NOT_FOR_SERVER, master.c_str());
        throw CopyError("this host is not on the master's list");
    }
    if (copy_registry(
            source, *store, [&] { keep_former_registry(*store); },
            [] { print_registry(IMSG_PLAIN, MSG_BACKUP_STARTED, now().c_str()); }))
        print_registry(IMSG_PLAIN, MSG_BACKUP_FINISHED, now().c_str());
}

// The daemon knows its role, also when the role's file has lost it.
void require_right_to_copy() {
    if (end_with_daemon())
        return;
    const int32_t type = rgy_get_svr_type();
    if (type == RGY_SVR_NONE || type == RGY_SVR_MASTER)
        throw CopyError("this host is no standby, backup or slave");
}

int run_copy_of_database() {
    try {
        end_with_daemon();
        copy_shared_registry();
        return EXIT_SUCCESS;
    } catch (const CopyError &error) {
        print_registry(IMSG_ERROR, MSG_BACKUP_ERROR, error.what());
    } catch (const StoreError &error) {
        print_registry(IMSG_ERROR, MSG_BACKUP_ERROR, error.what());
    }
    return EXIT_FAILURE;
}

// A copy knows under whom it was made; what a host has begun by itself and given up is nobody's term any more.
Term known_to_tell(Store &store) {
    return store.setting(origin_setting) == origin_copy ? term_of(store) : Term();
}

std::string words_of_term(uint64_t number, const std::string &host) {
    return "term " + std::to_string(number) + (host.empty() ? "" : " of host \"" + host + "\"");
}

// What superseded the master is noted here, too: a term that is begun here has to be above that.
void require_ahead(const Term &theirs, const Stamps &source, Store &store) {
    const Term own = known_to_tell(store);
    const tbs_uuid_t registry = store.stamps(0).registry;
    if (theirs.is_superseded() && tbs_uuid_eq(&source.registry, &registry) != 0)
        hear_of_term(store, theirs.heard, theirs.heard_host);
    if (theirs.is_superseded())
        throw CopyError("it is not the master any more, since " + words_of_term(theirs.heard, theirs.heard_host) +
                        ": make this host follow that one with \"veliactl registry hosts --master\"");
    if (tbs_uuid_eq(&source.registry, &registry) != 0 && own.number > theirs.number)
        throw CopyError("it is behind this copy, which is of " + words_of_term(own.number, own.host));
}

} // namespace

bool end_with_daemon() {
    const char *daemon = getenv(copying_daemon_variable);
    if (daemon == nullptr)
        return false;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (std::to_string(getppid()) != daemon)
        throw CopyError("the daemon that wanted this has ended");
    return true;
}

bool is_listed(const std::string &list, const std::string &host) {
    const auto hosts = hosts_in(list);
    return hosts.empty() || std::any_of(hosts.begin(), hosts.end(), [&](const std::string &listed) {
               return strcasecmp(listed.c_str(), host.c_str()) == 0;
           });
}

bool copy_registry(Source &source, Store &store, const std::function<void()> &keep_former,
                   const std::function<void()> &print_start) {
    const Term term = source.term(store.stamps(0).registry, known_to_tell(store));
    require_ahead(term, source.stamps(0), store);
    if (store.setting(origin_setting) == origin_master && is_alike(source, store))
        store.set_setting(origin_setting, origin_copy);
    bool is_changed = false;
    const auto begin = [&](const Stamps &stamps) {
        if (is_changed)
            return;
        print_start();
        prepare(stamps, store, keep_former);
        is_changed = true;
    };
    for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db) {
        const Stamps stamps = source.stamps(db);
        if (is_current(stamps, store, db) && store.setting(origin_setting) == origin_copy)
            continue;
        begin(stamps);
        Reading reading = source.read(db);
        store.replace(db, reading.stamps, std::move(reading.contents));
    }
    if (const auto hosts = source.backup_hosts(); hosts != store.setting(backup_setting))
        store.set_setting(backup_setting, hosts);
    if (is_changed)
        store.set_setting(origin_setting, origin_copy);
    take_term(store, term.number, term.host);
    return is_changed;
}

int run_copy() {
    if (is_registry_shared())
        return run_copy_of_database();
    std::string master;
    try {
        require_right_to_copy();
        master = master_of_site();
    } catch (const CopyError &error) {
        print_registry(IMSG_ERROR, MSG_NO_BACKUP_CONFIGURATION, error.what());
        return EXIT_FAILURE;
    }
    try {
        copy_from(master);
        return EXIT_SUCCESS;
    } catch (const CopyError &error) {
        print_registry(IMSG_ERROR, MSG_TROUBLE_CONTACTING, master.c_str(), error.what());
    } catch (const StoreError &error) {
        print_registry(IMSG_ERROR, MSG_BACKUP_ERROR, error.what());
    }
    return EXIT_FAILURE;
}

} // namespace velia::server
