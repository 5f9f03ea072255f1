// The copy that a host other than the master keeps of the registry. It is made by a process of its own, so that a slow
// master, or one that answers nonsense, is no trouble of the daemon; what is killed half way has changed nothing.
#pragma once

#include <functional>
#include <string>

#include <server/registry/store.h>
#include <server/registry/term.h>

namespace velia::server {

// Where a registry comes from; a store's setting of the name "origin". Empty: from nowhere, so there is nothing to
// tell.
constexpr const char *origin_setting = "origin";
constexpr const char *origin_master = "master"; // changed here
constexpr const char *origin_copy = "copy";     // made like another host's

// One database as it was read. Without stamps: it changed during each reading, so this is not what it was at any one
// moment.
struct Reading {
    std::optional<rgy_dtm_pair_t> stamps;
    Contents contents;
};

// The registry that is copied, on another host. Each operation throws CopyError when there is no answer.
class Source {
public:
    Source() = default;
    virtual ~Source() = default;
    Source(const Source &) = delete;
    Source &operator=(const Source &) = delete;

    virtual Stamps stamps(rgy_db_t db) = 0;
    virtual Reading read(rgy_db_t db) = 0;
    virtual std::string backup_hosts() = 0;

    // Under which term these data are changed, and which higher one it has heard of; it is told of what is `known` of
    // this registry.
    virtual Term term(const tbs_uuid_t & /*registry*/, const Term & /*known*/) { return {}; }
};

class CopyError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// True when the list, of names between blanks, commas or semicolons, has the host, or is empty.
bool is_listed(const std::string &list, const std::string &host);

// Makes the store like the source, database by database, each in one transaction. `keep_former` is called before a
// registry is overwritten that is not a copy of this one, and `print_start` before the first change. False: nothing was
// to be done. Throws CopyError for a source that has been superseded, or is behind this copy of the same registry.
bool copy_registry(Source &source, Store &store, const std::function<void()> &keep_former,
                   const std::function<void()> &print_start);

// In the environment of a copying process: the number of the daemon that started it, and with which it ends.
constexpr const char *copying_daemon_variable = "VELIA_COPYING_DAEMON";

// Copies the registry of the master that this host's hosts file names, and tells what it did. The process's exit
// status.
int run_copy();

// A process of the daemon's that outlived it would write over the registry of the next one, the master by then. Throws
// CopyError where the daemon that is named in the environment is not the parent. False: none is named.
bool end_with_daemon();

} // namespace velia::server
