// A copy is made by SQLite's own interface for it, out of one read transaction: what is committed meanwhile is not in
// it, and does not make it begin anew. It gets its name when it is whole and on disk, so that whoever is killed or
// finds the disk full leaves what was there, and an unfinished file beside it at most, which the next one removes.
#include <server/registry/saved.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <server/registry/copy.h>
#include <server/registry/schema.h>
#include <server/registry/term.h>
#include <server/registry/trace.h>
#include <support/fileutl.h>
#include <support/imsg.h>

namespace velia::server {

namespace {

constexpr int pages_at_once = 256;
constexpr size_t header_bytes = 100;
constexpr char form_of_log = 2;
constexpr char magic[] = "SQLite format 3";
constexpr uint64_t numbers_given_since = 1'000'000; // more than can have been since what is restored was saved

struct FinishBackup {
    void operator()(sqlite3_backup *backup) const { sqlite3_backup_finish(backup); }
};

uint64_t number_at(const std::string &header, size_t at, size_t bytes) {
    uint64_t number = 0;
    for (size_t i = 0; i < bytes; ++i)
        number = number << 8 | static_cast<unsigned char>(header[at + i]);
    return number;
}

std::string setting_of(Sqlite &database, std::string_view name) {
    Statement query(database, "SELECT value FROM setting WHERE name = ?1");
    std::string value = query.with(name).step() ? query.text(0) : "";
    query.run();
    return value;
}

void put_setting(Sqlite &database, std::string_view name, std::string_view value) {
    Statement(database, "INSERT OR REPLACE INTO setting (name, value) VALUES (?1, ?2)").with(name, value).run();
}

bool is_there(const std::string &file_name) {
    return access(file_name.c_str(), F_OK) == 0;
}

// What a file says of its own length, before anything is believed of what it holds. Only of one that nobody has open in
// this process: to close it here would drop the locks of that one.
enum class Form { single, with_log };
Form require_whole_file(const std::string &file_name) {
    const UniqueFd fd(open(file_name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat status = {};
    if (!fd || fstat(fd.get(), &status) != 0)
        throw_system_error();
    if (!S_ISREG(status.st_mode))
        throw StoreError("it is no regular file");
    if (status.st_size == 0)
        throw StoreError("the file is empty");
    std::string header(header_bytes, '\0');
    if (pread(fd.get(), header.data(), header.size(), 0) != static_cast<ssize_t>(header.size()) ||
        memcmp(header.data(), magic, sizeof magic) != 0)
        throw StoreError("the file is no registry");
    constexpr uint64_t largest_page = 65536; // written as 1
    const uint64_t page = number_at(header, 16, 2) == 1 ? largest_page : number_at(header, 16, 2);
    if (static_cast<uint64_t>(status.st_size) < page * number_at(header, 28, 4))
        throw StoreError("the file is cut off");
    return header[18] == form_of_log ? Form::with_log : Form::single;
}

// A saved registry is one file by itself. Others may lack what is, or was, in a log beside them.
void require_saved(const std::string &file_name) {
    if (require_whole_file(file_name) != Form::single)
        throw StoreError("it is the file of a registry that was in use, and may lack what its log held: save that one "
                         "with rvzd_server --save-registry");
}

uint64_t require_sound_records(Sqlite &database) {
    Statement entries(database, "SELECT db, text FROM entry ORDER BY id");
    uint64_t count = 0;
    for (; entries.step(); ++count)
        if (entries.number(0) < 0 || entries.number(0) >= RGY_DB_ALL || !items_of(entries.text(1)))
            throw StoreError("a malformed record: " + entries.text(1));
    return count;
}

SavedRegistry look_at(Sqlite &database) {
    require_registry(database);
    if (const std::string words = text_answer(database, "PRAGMA integrity_check(1)"); words != "ok")
        throw StoreError("the registry is damaged: " + words);
    SavedRegistry found;
    const std::string name = setting_of(database, "registry");
    if (name.size() != sizeof found.registry || setting_of(database, "copy").size() != sizeof found.registry)
        throw StoreError("the registry has lost its name");
    memcpy(&found.registry, name.data(), name.size());
    if (number_answer(database, "SELECT count(*) FROM stamp") != int64_t{RGY_DB_ALL})
        throw StoreError("the registry has lost its stamps");
    found.entries = require_sound_records(database);
    found.changes = stored_changes(database);
    found.term = term_of_text(setting_of(database, term_setting));
    return found;
}

SavedRegistry look_at_file(const std::string &registry_file) {
    require_whole_file(registry_file);
    Sqlite database(registry_file);
    return look_at(database);
}

// `unfinished` becomes what `from` is at this moment.
void copy_pages(Sqlite &from, const std::string &unfinished, const SaveProgress &progress) {
    Sqlite to(unfinished);
    to.run("PRAGMA synchronous = OFF"); // it is put on disk as a whole, or is none
    from.run("BEGIN");
    require_registry(from); // reads, so that there is a moment
    const std::unique_ptr<sqlite3_backup, FinishBackup> backup(
        sqlite3_backup_init(to.get(), "main", from.get(), "main"));
    if (backup == nullptr)
        to.fail();
    int result = SQLITE_OK;
    while (result == SQLITE_OK) {
        result = sqlite3_backup_step(backup.get(), pages_at_once);
        const auto total = static_cast<uint64_t>(sqlite3_backup_pagecount(backup.get()));
        const auto left = static_cast<uint64_t>(sqlite3_backup_remaining(backup.get()));
        if (result == SQLITE_OK && progress && !progress(total - left, total))
            throw StoreError("it was given up");
    }
    if (result != SQLITE_DONE)
        throw StoreError(sqlite3_errstr(result));
    from.run("COMMIT");
}

// Out of the log's form, so that it is one file, and by itself.
void make_single_file(Sqlite &database) {
    if (text_answer(database, "PRAGMA journal_mode = DELETE") != "delete")
        throw StoreError("the copy could not be made one file");
}

class Unfinished {
public:
    explicit Unfinished(std::string name) : name_(std::move(name)) { remove(); }
    ~Unfinished() {
        if (!name_.empty())
            for (const char *suffix : {"", "-journal", "-wal", "-shm"})
                unlink((name_ + suffix).c_str());
    }
    Unfinished(const Unfinished &) = delete;
    Unfinished &operator=(const Unfinished &) = delete;

    const std::string &name() const { return name_; }
    // It is on disk, and has its name for good.
    void finish(const std::string &file_name) {
        put_on_disk(name_);
        if (fileutl_rename(name_.c_str(), file_name.c_str()) != 0)
            throw_system_error();
        name_.clear();
        put_name_on_disk(file_name);
    }

private:
    static void put_name_on_disk(const std::string &file_name) {
        try {
            put_directory_on_disk(file_name);
        } catch (const StoreError &error) {
            throw StoreError(std::string("it stands there, but may be gone after a power failure: ") + error.what());
        }
    }

    void remove() const {
        for (const char *suffix : {"", "-journal", "-wal", "-shm"})
            remove_file(name_ + suffix);
    }

    std::string name_;
};

bool is_same_file(const std::string &one, const std::string &other) {
    struct stat first = {};
    struct stat second = {};
    return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

// Somebody may have named the wrong file.
void require_replaceable(const std::string &registry_file, const std::string &file_name) {
    if (!is_there(file_name))
        return;
    if (is_same_file(registry_file, file_name))
        throw StoreError("it is the registry itself");
    try {
        require_saved(file_name);
        Sqlite former(file_name, Sqlite::Access::read);
        require_registry(former);
    } catch (const StoreError &error) {
        throw StoreError("what stands there is no saved registry, and is not replaced: " + std::string(error.what()));
    }
}

// What the registry that stands here has come to, as far as it can be read.
struct Present {
    bool is_there = false;
    std::optional<SavedRegistry> found;
    uint64_t term = 0; // the highest of which it has heard
};

Present look_at_present(const std::string &registry_file) {
    Present present;
    present.is_there = is_there(registry_file);
    if (!present.is_there)
        return present;
    try {
        present.found = look_at_file(registry_file);
        Sqlite database(registry_file);
        present.term = std::max(present.found->term, term_of_text(setting_of(database, heard_term_setting)));
    } catch (const StoreError &) { // it is kept as it is, and may be the reason for all this
        present.found.reset();
    }
    return present;
}

// What is given to the restored one so that nobody takes it for what it was: neither its daemon, which has acknowledged
// more since, nor its copies.
void make_present(const std::string &unfinished, const Present &present, const std::optional<uint64_t> &acknowledged) {
    Sqlite database(unfinished);
    const SavedRegistry saved = look_at(database);
    if (present.found && tbs_uuid_eq(&present.found->registry, &saved.registry) == 0)
        throw StoreError("it is of another registry than the one that stands here: move that one and what is beside it "
                         "away first");
    const uint64_t changes =
        std::max({saved.changes, present.found ? present.found->changes : 0, acknowledged.value_or(0)}) + 1;
    // A copy is of its master's term, and not ahead of it; whoever makes it a master's begins one above all that were
    // here.
    const bool is_masters = setting_of(database, origin_setting) == origin_master;
    const uint64_t term = std::max(saved.term, present.term) + (is_masters ? 1 : 0);
    make_totals(database);
    Transaction transaction(database);
    Statement(database, "INSERT OR REPLACE INTO total VALUES (-1, ?1)").with(changes).run();
    put_setting(database, term_setting, std::to_string(term));
    Statement(database, "DELETE FROM setting WHERE name IN (?1, ?2, ?3)")
        .with(std::string_view(heard_term_setting), std::string_view(heard_host_setting),
              std::string_view(moved_setting)) // it is served from here again
        .run();
    Statement(database, "UPDATE sqlite_sequence SET seq = seq + ?1 WHERE name = 'entry'")
        .with(numbers_given_since)
        .run();
    transaction.commit();
    make_single_file(database);
    give_to_owner_of_directory(unfinished);
}

// What nothing took the place of is not kept twice.
class KeptName {
public:
    explicit KeptName(const std::string &registry_file)
        : registry_file_(registry_file), name_(free_name_for_former(registry_file)) {}
    ~KeptName() {
        if (is_same_file(name_, registry_file_))
            unlink(name_.c_str());
    }
    KeptName(const KeptName &) = delete;
    KeptName &operator=(const KeptName &) = delete;

    const std::string &name() const { return name_; }

private:
    const std::string registry_file_;
    const std::string name_;
};

// Under another name beside it, log and all. One that can be opened brings its log home before, so that none is left to
// be replayed over what comes in its place; of one that cannot, the log goes first: without it nobody serves it.
void keep_present(const std::string &registry_file, const Present &present, const std::string &kept) {
    if (present.found) {
        Sqlite database(registry_file);
        make_single_file(database);
    }
    for (const char *suffix : {"-wal", "-shm"})
        if (is_there(registry_file + suffix) &&
            fileutl_rename((registry_file + suffix).c_str(), (kept + suffix).c_str()) != 0)
            throw_system_error();
    if (link(registry_file.c_str(), kept.c_str()) != 0)
        throw_system_error();
    put_directory_on_disk(kept);
}

} // namespace

SavedRegistry check_saved_registry(const std::string &file_name) {
    require_saved(file_name);
    Sqlite database(file_name, Sqlite::Access::read);
    return look_at(database);
}

// What was acknowledged is noted behind its commit: read before the registry, it is never ahead of a right one.
SavedRegistry check_registry(const std::string &registry_file) {
    const RegistryTrace trace(registry_file);
    const auto acknowledged = trace.mark();
    const SavedRegistry found = look_at_file(registry_file);
    RegistryTrace::require_not_older({found.registry, found.changes}, acknowledged);
    return found;
}

void give_to_owner_of_directory(const std::string &file_name) {
    struct stat directory = {};
    if (geteuid() == 0 && stat(file_name.substr(0, file_name.rfind('/') + 1).c_str(), &directory) == 0 &&
        chown(file_name.c_str(), directory.st_uid, directory.st_gid) != 0)
        throw_system_error();
}

std::string free_name_for_former(const std::string &registry_file) {
    const std::string name = registry_file + ".old";
    std::string found = name;
    for (int i = 2; is_there(found); ++i)
        found = name + "." + std::to_string(i);
    return found;
}

void save_registry(const std::string &registry_file, const std::string &file_name, const SaveProgress &progress) {
    if (!is_there(registry_file))
        throw StoreError("there is no registry here");
    require_replaceable(registry_file, file_name);
    Unfinished unfinished(file_name + ".new");
    {
        Sqlite from(registry_file);
        copy_pages(from, unfinished.name(), progress);
        Sqlite made(unfinished.name());
        make_single_file(made);
    }
    check_saved_registry(unfinished.name()); // as it stands there: a write that failed need not have been told
    unfinished.finish(file_name);
}

std::string restore_registry(const std::string &saved, const std::string &registry_file) {
    check_saved_registry(saved);
    if (is_same_file(saved, registry_file))
        throw StoreError("it is the registry itself");
    const Present present = look_at_present(registry_file);
    const auto mark = RegistryTrace(registry_file).mark();
    Unfinished unfinished(registry_file + ".restored");
    {
        Sqlite from(saved, Sqlite::Access::read);
        copy_pages(from, unfinished.name(), {});
    }
    make_present(unfinished.name(), present, mark ? std::optional(mark->changes) : std::nullopt);
    const KeptName kept(registry_file);
    if (present.is_there)
        keep_present(registry_file, present, kept.name());
    unfinished.finish(registry_file);
    return present.is_there ? kept.name() : "";
}

} // namespace velia::server
