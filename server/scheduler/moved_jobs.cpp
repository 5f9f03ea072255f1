#include <server/scheduler/moved_jobs.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <limits>
#include <unistd.h>

#include <server/registry/place.h>
#include <server/registry/postgres.h>
#include <server/registry/saved.h>
#include <server/registry/sqlite.h>
#include <server/scheduler/shared_job_store.h>
#include <support/imsg.h>
#include <support/sysutl.h>
#include <support/tbs.h>

namespace velia::server {

namespace {

constexpr std::array<const char *, 3> suffixes = {"-wal", "-shm", ""};

void tell(const JobStock &stock, const std::string &place) {
    imsg_print(IMSG_PLAIN, "%zu jobs and %zu runs are in %s now. The next daemon needs the option store for it.\n",
               IMSG_FORMAT, stock.contents.jobs.size(), stock.contents.runs.size(), place.c_str());
}

void put_whole(JobStore &to, const JobStock &stock) {
    to.put_all(stock);
    const JobContents there = to.read();
    if (there.jobs.size() != stock.contents.jobs.size() || there.runs.size() != stock.contents.runs.size())
        throw StoreError("not all jobs came");
}

// A daemon that has its jobs here afterwards would run them once more.
void keep_file_aside(const std::string &file) {
    if (access(file.c_str(), F_OK) != 0)
        return;
    const std::string kept = free_name_for_former(file);
    Sqlite(file).checkpoint();
    for (const char *suffix : suffixes)
        if (rename((file + suffix).c_str(), (kept + suffix).c_str()) != 0 && errno != ENOENT)
            throw_system_error();
    imsg_print(IMSG_PLAIN, "The former jobs are kept in \"%s\".\n", IMSG_FORMAT, kept.c_str());
}

// Its keeper tells the end to a daemon of its own host.
void require_no_run_elsewhere(const JobStock &stock, const std::string &host) {
    for (const auto &run : stock.contents.runs)
        if (run.ended == 0 && run.host != host)
            throw StoreError("a run of job " + std::to_string(run.job) + " goes on at " + run.host);
}

// It would go on with the jobs that are moved away, or with those that come.
void require_nobody_else(SharedJobStore &store, uint32_t take_over_s) {
    const auto others = store.others_heard(take_over_s);
    if (!others.empty())
        throw StoreError("the daemon of host " + others[0].host + " told " + std::to_string(others[0].seconds) +
                         " s ago that it lives: end it, and try again " + std::to_string(take_over_s) +
                         " s (option take-over) after that");
}

// What is in the file by now would be run twice.
void clear_database(SharedJobStore &store) {
    try {
        store.clear();
    } catch (const StoreError &error) {
        imsg_print(IMSG_WARNING,
                   "The jobs could not be taken out of the database: no daemon may be started with the option store "
                   "for it: %s\n",
                   IMSG_FORMAT, error.what());
    }
}

void move_into_file(uint32_t take_over_s) {
    const std::string file = jobs_file();
    const std::string host = sysutl_myhostname();
    const auto store = open_postgres_job_store(registry_database(), host);
    require_nobody_else(*store, take_over_s);
    const JobStock stock = stock_of(*store);
    require_no_run_elsewhere(stock, host);
    const std::string moved = file + ".moved";
    for (const char *suffix : suffixes)
        remove_file(moved + suffix);
    put_whole(*open_job_store(moved), stock);
    Sqlite(moved).checkpoint();
    for (const char *suffix : {"-wal", "-shm"})
        remove_file(moved + suffix);
    put_on_disk(moved);
    keep_file_aside(file);
    if (rename(moved.c_str(), file.c_str()) != 0)
        throw_system_error();
    put_directory_on_disk(file);
    clear_database(*store);
    tell(stock, file);
}

void move_into_database(const std::string &conninfo, uint32_t take_over_s) {
    if (const std::string fault = fault_of_conninfo(conninfo); !fault.empty())
        throw StoreError("the connection string is malformed: " + fault);
    if (is_registry_shared())
        throw StoreError("the jobs are in a database already");
    const std::string file = jobs_file();
    if (access(file.c_str(), F_OK) != 0)
        throw StoreError("there are no jobs here");
    const JobStock stock = stock_of(*open_job_store(file));
    const auto store = open_postgres_job_store(conninfo, sysutl_myhostname());
    require_nobody_else(*store, take_over_s);
    put_whole(*store, stock);
    keep_file_aside(file);
    tell(stock, told_conninfo(conninfo));
}

} // namespace

std::string jobs_file() {
    std::array<char, TBS_PATH_SIZE> path;
    return tbs_product_host_priv_dir(path.data(), "scheduler.db") == TBS_ST_OK ? path.data() : "";
}

JobStock stock_of(JobStore &store) {
    return {store.read(), store.changes(0, std::numeric_limits<int64_t>::max(), static_cast<uint32_t>(changes_kept)),
            store.last_number()};
}

void move_jobs_of_host(const std::string &to, uint32_t take_over_s) {
    if (to == "sqlite" && !is_registry_shared())
        throw StoreError("the jobs are in this host's file already");
    if (to == "sqlite")
        move_into_file(take_over_s);
    else
        move_into_database(to, take_over_s);
}

} // namespace velia::server
