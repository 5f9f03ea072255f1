#include <server/registry/moved.h>

#include <cerrno>
#include <cstdio>
#include <unistd.h>

#include <server/registry/place.h>
#include <server/registry/postgres.h>
#include <server/registry/postgres_store.h>
#include <server/registry/saved.h>
#include <server/registry/schema.h>
#include <support/fileutl.h>
#include <support/imsg.h>

namespace velia::server {

namespace {

Contents contents_of(Store &store, rgy_db_t db) {
    Contents contents;
    store.scan({db, "", "", ""}, 0, [&](uint64_t id, const Record *record) {
        contents[id] = record->flex_text;
        return true;
    });
    return contents;
}

void put_settings(Store &from, Store &to) {
    for (const auto &[name, value] : to.settings())
        to.set_setting(name, "");
    for (const auto &[name, value] : from.settings())
        to.set_setting(name, value);
}

// No number is given twice, of those that only one of both has given neither.
void put_numbers(Store &from, Store &to) {
    if (const uint64_t last = from.last_number(), own = to.last_number(); own < last)
        to.skip_numbers(last - own);
}

void put_all(Store &from, Store &to) {
    to.begin_anew(from.stamps(0).registry);
    for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db)
        to.replace(db, from.stamps(db).pair, contents_of(from, db));
    put_settings(from, to);
    put_numbers(from, to);
}

void remove_with_log(const std::string &file_name) {
    for (const char *suffix : {"", "-wal", "-shm"})
        remove_file(file_name + suffix);
    remove_file(trace_of_registry(file_name));
}

// As one file: the log is brought home, and what is beside it goes.
void make_single(const std::string &file_name) {
    {
        Sqlite database(file_name);
        Statement(database, "PRAGMA journal_mode = DELETE").run();
    }
    remove_file(trace_of_registry(file_name));
    put_on_disk(file_name);
}

void require_free(Store &from, Store &to) {
    uint64_t entries = 0;
    for (const uint64_t count : counts_of(to))
        entries += count;
    const tbs_uuid_t own = from.stamps(0).registry;
    const tbs_uuid_t there = to.stamps(0).registry;
    if (entries > 0 && tbs_uuid_eq(&own, &there) == 0)
        throw StoreError("another registry of " + std::to_string(entries) + " entries is there");
}

void tell(const EntryCounts &counts, const std::string &place) {
    uint64_t entries = 0;
    for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db) {
        imsg_print(IMSG_PLAIN, "%s: %llu entries\n", IMSG_FORMAT, registry_db_name(db),
                   static_cast<unsigned long long>(counts.at(db)));
        entries += counts.at(db);
    }
    imsg_print(IMSG_PLAIN,
               "The registry of %llu entries is in %s now. The next daemon needs the option store for it.\n",
               IMSG_FORMAT, static_cast<unsigned long long>(entries), place.c_str());
}

void move_into_file() {
    const std::string file = registry_file();
    const auto from = existing_registry();
    const std::string moved = file + ".moved";
    save_into_sqlite(*from, moved);
    if (access(file.c_str(), F_OK) == 0) {
        const std::string kept = free_name_for_former(file);
        Sqlite(file).checkpoint();
        for (const char *suffix : {"-wal", "-shm", ""})
            if (rename((file + suffix).c_str(), (kept + suffix).c_str()) != 0 && errno != ENOENT)
                throw_system_error();
        imsg_print(IMSG_PLAIN, "The former registry is kept in \"%s\".\n", IMSG_FORMAT, kept.c_str());
    }
    remove_file(trace_of_registry(file)); // it tells of the former one
    if (fileutl_rename(moved.c_str(), file.c_str()) != 0)
        throw_system_error();
    put_directory_on_disk(file);
    bool is_new = false;
    tell(counts_of(*open_sqlite_store(file, is_new)), file);
}

void move_into_database(const std::string &conninfo) {
    if (const std::string fault = fault_of_conninfo(conninfo); !fault.empty())
        throw StoreError("the connection string is malformed: " + fault);
    const auto from = existing_registry();
    if (from == nullptr)
        throw StoreError("there is no registry here");
    bool is_new = false;
    const auto to = open_postgres_store(conninfo, is_new);
    require_free(*from, *to);
    tell(move_registry(*from, *to), told_conninfo(conninfo));
}

} // namespace

void move_registry_of_host(const std::string &to) {
    if (to == "sqlite" && !is_registry_shared())
        throw StoreError("the registry is in this host's file already");
    if (to == "sqlite")
        move_into_file();
    else
        move_into_database(to);
}

EntryCounts counts_of(Store &store) {
    EntryCounts counts;
    for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db)
        counts.at(db) = store.count(db);
    return counts;
}

EntryCounts move_registry(Store &from, Store &to) {
    EntryCounts counts = {};
    from.at_one_moment([&] {
        to.together([&] {
            put_all(from, to);
            counts = counts_of(to);
            if (counts != counts_of(from))
                throw StoreError("not all entries came: nothing was moved");
        });
    });
    return counts;
}

void save_into_sqlite(Store &from, const std::string &file_name) {
    const std::string unfinished = file_name + ".new";
    remove_with_log(unfinished);
    {
        bool is_new = false;
        const auto to = open_sqlite_store(unfinished, is_new);
        move_registry(from, *to);
    }
    make_single(unfinished);
    if (fileutl_rename(unfinished.c_str(), file_name.c_str()) != 0)
        throw_system_error();
    put_directory_on_disk(file_name);
}

} // namespace velia::server
