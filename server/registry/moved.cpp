#include <server/registry/moved.h>

#include <cerrno>
#include <cstdio>
#include <numeric>
#include <unistd.h>

#include <server/registry/copy.h>
#include <server/registry/look.h>
#include <server/registry/place.h>
#include <server/registry/postgres.h>
#include <server/registry/postgres_schema.h>
#include <server/registry/postgres_store.h>
#include <server/registry/role.h>
#include <server/registry/saved.h>
#include <server/registry/schema.h>
#include <server/registry/term.h>
#include <support/fileutl.h>
#include <support/imsg.h>
#include <support/sysutl.h>

namespace velia::server {

EntryCounts counts_of(Store &store) {
    EntryCounts counts;
    for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db)
        counts.at(db) = store.count(db);
    return counts;
}

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

bool is_same_registry(Store &left, Store &right) {
    const tbs_uuid_t one = left.stamps(0).registry;
    const tbs_uuid_t other = right.stamps(0).registry;
    return tbs_uuid_eq(&one, &other) != 0;
}

// Of the same registry a database with the same stamps is the same, and of another one what stands there already stays.
void put_all(Store &from, Store &to) {
    if (!is_same_registry(from, to))
        to.begin_anew(from.stamps(0).registry);
    for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db)
        if (const auto stamps = from.stamps(db).pair; !is_same(stamps, to.stamps(db).pair))
            to.replace(db, stamps, contents_of(from, db));
    put_settings(from, to);
    put_numbers(from, to);
}

EntryCounts put_and_count(Store &from, Store &to) {
    put_all(from, to);
    const EntryCounts counts = counts_of(to);
    if (counts != counts_of(from))
        throw StoreError("not all entries came: nothing was moved");
    return counts;
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

std::string own_file() {
    return "the file of host \"" + std::string(sysutl_myhostname()) + "\"";
}

// Where the registry is now, as marks have it.
std::string own_place() {
    return is_registry_shared() ? registry_place() : own_file();
}

uint64_t sum_of(const EntryCounts &counts) {
    return std::accumulate(counts.begin(), counts.end(), uint64_t{0});
}

// What others have copies of, or take for superseded, is no registry to go on with.
void require_masters(Store &from) {
    const Term term = term_of(from);
    if (from.setting(origin_setting) == origin_copy)
        throw StoreError("this host's registry is a copy of another host's: move that host's");
    if (term.is_superseded())
        throw StoreError("host \"" + term.heard_host + "\" is the registry's master by now: move that host's");
}

bool has_it_already(Store &from, Store &to) {
    return !from.moved_to().empty() && is_same_registry(from, to) && to.moved_to().empty();
}

// Of two that are open, or have moved to different places, nobody knows which one is right.
void require_free(Store &from, Store &to, const std::string &place) {
    const std::string marked = from.moved_to();
    const std::string marked_there = to.moved_to();
    if (!is_same_registry(from, to)) {
        if (const uint64_t entries = sum_of(counts_of(to)); entries > 0)
            throw StoreError("another registry of " + std::to_string(entries) + " entries is there");
        if (!marked.empty() && marked != place)
            throw StoreMoved(moved_words(marked) + " already");
    } else if (marked_there.empty()) {
        throw StoreError("this registry is there already, and served from there: drop the one that is not to be kept");
    } else if (marked_there != own_place()) {
        throw StoreMoved("from there " + moved_words(marked_there));
    }
}

void open_again(Store &from, const std::string &former) {
    try {
        from.set_moved_to(former);
    } catch (const StoreError &error) {
        imsg_print(IMSG_WARNING, "The registry is not served from where it was until it is moved once more: %s\n",
                   IMSG_FORMAT, error.what());
    }
}

// The place that it leaves is closed first, so that there are never two that take updates; what is killed on the way
// leaves one that is complete, closed, and can be moved once more.
template <class Body>
void with_closed(Store &from, const std::string &place, const bool &is_there, Body &&body) {
    const std::string former = from.moved_to();
    from.set_moved_to(place);
    try {
        body();
    } catch (const StoreUncertain &) {
        throw StoreUncertain("whether all came is not known: move it once more");
    } catch (...) {
        if (!is_there)
            open_again(from, former);
        throw;
    }
}

// Under the log's name, too, of which nothing is to be replayed over the next one.
std::string put_aside(const std::string &file) {
    std::string kept = free_name_for_former(file);
    Sqlite(file).checkpoint();
    for (const char *suffix : {"-wal", "-shm", ""})
        if (rename((file + suffix).c_str(), (kept + suffix).c_str()) != 0 && errno != ENOENT)
            throw_system_error();
    put_directory_on_disk(file);
    return kept;
}

// Nobody finds it otherwise where the move fails behind that.
template <class Body>
void with_kept_told(const std::string &file, const std::string &kept, Body &&body) {
    try {
        body();
    } catch (const StoreError &) {
        if (!kept.empty())
            imsg_print(IMSG_WARNING, "What stood in \"%s\" is kept in \"%s\".\n", IMSG_FORMAT, file.c_str(),
                       kept.c_str());
        throw;
    }
}

bool has_come(Store &from, const std::string &file) {
    const auto there = from.moved_to() == own_file() ? existing_store(file) : nullptr;
    return there != nullptr && is_same_registry(from, *there) && there->moved_to().empty();
}

// What is in the file's place is put aside before the database is closed: what stands there behind that has come from
// there.
RegistryMove move_into_file(bool is_tried) {
    const std::string file = registry_file();
    bool is_new = false;
    const auto from = open_postgres_store(registry_database(), is_new, PostgresUse::moving);
    RegistryMove move = {MoveState::would_move, file, counts_of(*from), {}, ""};
    if (const std::string marked = from->moved_to(); !marked.empty() && marked != own_file())
        throw StoreMoved(moved_words(marked));
    const bool has_come = server::has_come(*from, file);
    if (has_come || (is_tried && access(file.c_str(), F_OK) == 0))
        move.there = counts_of(*existing_store(file));
    if (has_come)
        move.state = MoveState::was_moved;
    if (has_come || is_tried)
        return move;
    if (access(file.c_str(), F_OK) == 0)
        move.kept = put_aside(file);
    bool is_there = false;
    with_kept_told(file, move.kept, [&] {
        with_closed(*from, own_file(), is_there, [&] {
            save_into_sqlite(*from, file + ".moved");
            give_to_owner_of_directory(file + ".moved");
            remove_file(trace_of_registry(file)); // it tells of the former one
            if (fileutl_rename((file + ".moved").c_str(), file.c_str()) != 0)
                throw_system_error();
            is_there = true;
            put_directory_on_disk(file);
        });
    });
    move.there = counts_of(*existing_store(file));
    move.state = MoveState::moved;
    return move;
}

std::unique_ptr<Store> open_source() {
    bool is_new = false;
    if (is_registry_shared())
        return open_postgres_store(registry_database(), is_new, PostgresUse::moving);
    auto from = existing_store(registry_file());
    if (from == nullptr)
        throw StoreError("there is no registry here");
    return from;
}

RegistryMove move_into_database(const std::string &conninfo, bool is_tried) {
    if (const std::string fault = fault_of_conninfo(conninfo); !fault.empty())
        throw StoreError("the connection string is malformed: " + fault);
    const std::string place = told_conninfo(conninfo);
    const auto from = open_source();
    if (!is_tried && !is_registry_shared())
        look_at_site(*from, Serving::elsewhere);
    require_masters(*from);
    RegistryMove move = {MoveState::would_move, place, counts_of(*from), {}, ""};
    if (is_tried && !has_postgres_schema(conninfo))
        return move;
    bool is_new = false;
    const auto to = open_postgres_store(conninfo, is_new, PostgresUse::moving);
    move.there = counts_of(*to);
    if (has_it_already(*from, *to)) {
        move.state = MoveState::was_moved;
        return move;
    }
    require_free(*from, *to, place);
    if (is_tried)
        return move;
    bool is_there = false;
    with_closed(*from, place, is_there, [&] {
        from->at_one_moment([&] {
            to->together([&] {
                require_free(*from, *to, place);
                move.there = put_and_count(*from, *to);
                to->set_moved_to("");
            });
            is_there = true;
        });
    });
    move.state = MoveState::moved;
    return move;
}

RegistryMove stays_in_file() {
    const auto store = open_source();
    if (const std::string marked = store->moved_to(); !marked.empty())
        throw StoreMoved(moved_words(marked) + ": give the configuration that has the option store for it");
    const EntryCounts counts = counts_of(*store);
    return {MoveState::was_moved, registry_file(), counts, counts, ""};
}

const char *word_of(MoveState state) {
    constexpr const char *words[] = {"moved", "was moved", "would move"};
    return words[static_cast<size_t>(state)];
}

} // namespace

RegistryMove move_registry_of_host(const std::string &to, bool is_tried) {
    try {
        if (to == "sqlite")
            return is_registry_shared() ? move_into_file(is_tried) : stays_in_file();
        return move_into_database(to, is_tried);
    } catch (const CopyError &error) {
        throw StoreError(error.what());
    }
}

void tell_move(const RegistryMove &move) {
    for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db)
        imsg_print(IMSG_PLAIN, "%s: %llu entries, %llu there\n", IMSG_FORMAT, registry_db_name(db),
                   static_cast<unsigned long long>(move.here.at(db)),
                   static_cast<unsigned long long>(move.there.at(db)));
    if (!move.kept.empty())
        imsg_print(IMSG_PLAIN, "The former registry is kept in \"%s\".\n", IMSG_FORMAT, move.kept.c_str());
    const auto entries =
        static_cast<unsigned long long>(sum_of(move.state == MoveState::would_move ? move.here : move.there));
    if (move.state == MoveState::would_move)
        imsg_print(IMSG_PLAIN, "The registry of %llu entries would be moved to %s.\n", IMSG_FORMAT, entries,
                   move.place.c_str());
    else
        imsg_print(IMSG_PLAIN, "The registry of %llu entries is in %s %s.\n", IMSG_FORMAT, entries, move.place.c_str(),
                   move.state == MoveState::moved ? "now. The next daemon needs the option store for it" : "already");
}

void tell_move_in_rows(const RegistryMove &move) {
    for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db)
        imsg_print(IMSG_PLAIN, "%s\t%s\t%llu\t%llu\t%s\t%s\n", IMSG_FORMAT, word_of(move.state), registry_db_name(db),
                   static_cast<unsigned long long>(move.here.at(db)),
                   static_cast<unsigned long long>(move.there.at(db)), move.kept.c_str(), move.place.c_str());
}

EntryCounts move_registry(Store &from, Store &to) {
    EntryCounts counts = {};
    from.at_one_moment([&] { to.together([&] { counts = put_and_count(from, to); }); });
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
