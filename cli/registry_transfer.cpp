// veliactl registry export and import: entries as lines of JSON, in files that outlive a registry.
#include <cli/registry.h>

#include <functional>
#include <iostream>
#include <iterator>

#include <sys/stat.h>

#include <cli/broker.h>
#include <cli/commands.h>
#include <cli/entry_file.h>
#include <cli/messages.h>
#include <cli/new_file.h>
#include <cli/progress_line.h>
#include <cli/registry_bulk.h>
#include <cli/results.h>
#include <cli/streams.h>
#include <cli/waits.h>
#include <veliaxdr/rgy_site.h>

namespace velia::cli {

namespace {

constexpr const char *standard_stream = "-";

struct Export {
    std::string file;
    std::vector<std::string> dbs;
    std::string host;
};

struct Import {
    std::string file;
    std::string host;
    bool is_atomic = false;
    bool is_dry_run = false;
};

Options export_options(Export &arguments) {
    return {{.name = "FILE",
             .help = "file to write, or - for standard output",
             .target = &arguments.file,
             .is_required = true},
            {.name = "--db",
             .type = "DB",
             .help = "database, by name or number; may be repeated (default: all)",
             .target = &arguments.dbs,
             .fault = fault_of_db},
            registry_host_option(arguments.host)};
}

Options import_options(Import &arguments) {
    return {{.name = "FILE",
             .help = "file to read, or - for standard input",
             .target = &arguments.file,
             .is_required = true},
            {.name = "--atomic", .help = "all entries of a database, or none of them", .target = &arguments.is_atomic},
            registry_host_option(arguments.host),
            dry_run_option(arguments.is_dry_run)};
}

int export_entries(const Export &arguments, const Settings &settings);
int import_entries(const Import &arguments, const Settings &settings);

constexpr Column export_columns[] = {{"db", Type::text, "the database"},
                                     {"entries", Type::integer, "how many were written"},
                                     {"file", Type::text, "where they are"}};
constexpr Output export_output = {Output::Shape::list, export_columns};

constexpr Column import_columns[] = {{"action", Type::text, "added, or would add"},
                                     {"db", Type::text, "the database"},
                                     {"entries", Type::integer, "how many were added"},
                                     {"passed", Type::integer, "how many stood there already"},
                                     {"registry", Type::text, "host of the registry"}};
constexpr Output import_output = {Output::Shape::list, import_columns};

constexpr const char *export_notes =
    R"(Each database is written as it stood at one moment. The file is complete or not there. Standard output has the lines
alone.
)";

constexpr const char *import_notes =
    R"(Every line is read before anything is changed. What stands in the registry in the same words is passed over, so an
import that was broken off is gone on with by the same command. Numbers ("id") are not taken over. With --atomic a
database gets all of its entries or none, 200000 at most.
)";

constexpr Command commands[] = {
    {.path = "registry export",
     .help = "Write entries to a file, one a line",
     .examples = {"veliactl registry export site.jsonl", "veliactl registry export regions.jsonl --db regions",
                  "veliactl registry export - --db vault_tag | grep build7"},
     .notes = export_notes,
     .make = call_of<export_entries, export_options>,
     .output = &export_output},
    {.path = "registry import",
     .help = "Add the entries of a file",
     .examples = {"veliactl registry import site.jsonl --dry-run", "veliactl registry import site.jsonl --atomic"},
     .notes = import_notes,
     .make = call_of<import_entries, import_options>,
     .output = &import_output},
};

std::vector<rgy_db_t> dbs_of(const std::vector<std::string> &names) {
    std::vector<rgy_db_t> dbs;
    dbs.reserve(RGY_DB_ALL);
    for (const auto &name : names)
        dbs.push_back(*db_of_name(name));
    for (rgy_db_t db = 0; names.empty() && db < RGY_DB_ALL; ++db)
        dbs.push_back(db);
    return dbs;
}

int tell_registry(tbs_status_t status, const std::string &host) {
    tell_failure(status, host, "The registry could not be read: %s\n", tbs_strerror(status));
    return exit_status_of_request(status);
}

// Lines on their way to a file, many in one write.
class Lines {
public:
    explicit Lines(NewFile &file) : file_(file) {}

    bool add(const std::string &lines) {
        constexpr size_t room = 1 << 16;
        text_ += lines;
        return text_.size() < room || flush();
    }
    bool flush() {
        is_lost_ = is_lost_ || !file_.write_all(text_.data(), text_.size());
        text_.clear();
        return !is_lost_;
    }
    bool is_lost() const { return is_lost_; }

private:
    NewFile &file_;
    std::string text_;
    bool is_lost_ = false;
};

struct Written {
    rgy_db_t db;
    uint64_t entries;
};

// Takes some lines; false where they are lost.
using Put = std::function<bool(const std::string &lines)>;

// Nothing is told of what `put` could not take.
int write_databases(const Export &arguments, const std::string &host, const Settings &settings, const Put &put,
                    std::vector<Written> &written) {
    const Broker registry = reach_broker(host, RVZD_PROTOCOL_TCP, settings.timeout);
    if (registry == nullptr)
        return exit_unreachable; // and told
    for (const rgy_db_t db : dbs_of(arguments.dbs)) {
        Database database;
        ProgressLine line(arguments.file != standard_stream || !is_terminal_for_results());
        const auto status = read_database(registry.get(), db, database, [&](uint64_t entries) {
            line.count(std::string(registry_db_name(db)) + ":", entries);
        });
        line.wipe();
        if (status != TBS_ST_OK)
            return tell_registry(status, host);
        bool is_taken = true;
        for (const auto &entry : database.entries)
            is_taken = is_taken && put(line_of(entry) + "\n");
        if (!is_taken)
            return exit_failed;
        written.push_back({db, database.entries.size()});
    }
    return exit_done;
}

int export_entries(const Export &arguments, const Settings &settings) {
    const auto host = settled_host(arguments.host);
    if (!host)
        return exit_failed;
    std::vector<Written> written;
    if (arguments.file == standard_stream) {
        const auto put = [](const std::string &lines) {
            return std::cout.write(lines.data(), std::ssize(lines)).good();
        };
        const int status = write_databases(arguments, *host, settings, put, written);
        return flush_results() ? status : exit_failed;
    }
    NewFile file(arguments.file, DEFFILEMODE);
    if (!file.is_open())
        return tell_file_trouble(arguments.file, "written");
    Lines lines(file);
    const int status = write_databases(
        arguments, *host, settings, [&](const std::string &more) { return lines.add(more); }, written);
    if (lines.is_lost() || (status == exit_done && !(lines.flush() && file.finish())))
        return tell_file_trouble(arguments.file, "written");
    if (status != exit_done)
        return status;
    Results results(export_output, settings, Results::Of::change);
    for (const auto &[db, entries] : written)
        results.add({registry_db_name(db), entries, arguments.file});
    results.finish();
    return exit_done;
}

int tell_import(const Import &arguments, const std::string &host, const Changes &changes,
                const std::vector<NumberedEntry> &entries, tbs_status_t status) {
    const bool is_of_one = status == TBS_ST_ALREADY_EXISTS || status == TBS_ST_INVALID_ARG;
    if (is_of_one)
        tell_failure(status, host, "%s:%llu: the entry was not added: %s\n", arguments.file.c_str(),
                     static_cast<unsigned long long>(entries.at(changes.failed()).line), tbs_strerror(status));
    else
        tell_failure(status, host, "Entries were not added: %s\n", tbs_strerror(status));
    return exit_status_of(status);
}

int send_entries(const Import &arguments, const Settings &settings, const std::string &host, rvzd_handle_t *registry,
                 const std::vector<NumberedEntry> &entries, Results &results) {
    const rgy_db_t db = entries[0].entry.db;
    Changes changes(registry, db, arguments.is_atomic ? Changes::As::one : Changes::As::pieces,
                    RGY_CHANGE_PASS_STANDING, settings.timeout);
    ProgressLine line;
    tbs_status_t status = TBS_ST_OK;
    for (size_t i = 0; status == TBS_ST_OK && i < entries.size(); ++i) {
        status = changes.add(0, entries[i].entry.flex_text);
        line.count(std::string(registry_db_name(db)) + ":", changes.sent(), entries.size());
        begin_wait(settings.timeout);
    }
    if (status == TBS_ST_OK)
        status = changes.finish();
    line.wipe();
    const uint64_t done = status == TBS_ST_OK || !arguments.is_atomic ? changes.sent() : 0;
    if (done > 0 || status == TBS_ST_OK)
        results.add({"added", registry_db_name(db), done - changes.passed(), changes.passed(), host});
    return status == TBS_ST_OK ? exit_done : tell_import(arguments, host, changes, entries, status);
}

int tell_what_would_be(const EntriesOfDbs &entries, const std::string &host, Results &results) {
    for (const auto &[db, of_db] : entries)
        results.add({"would add", registry_db_name(db), uint64_t{of_db.size()}, uint64_t{0}, host});
    results.finish();
    return exit_done;
}

int import_entries(const Import &arguments, const Settings &settings) {
    EntriesOfDbs entries;
    if (const int status = read_entry_file(arguments.file, entries); status != exit_done)
        return status;
    const auto host = settled_host(arguments.host);
    if (!host)
        return exit_failed;
    Results results(import_output, settings, arguments.is_dry_run ? Results::Of::look : Results::Of::change);
    if (arguments.is_dry_run)
        return tell_what_would_be(entries, *host, results);
    const Broker registry = reach_broker(*host, RVZD_PROTOCOL_TCP, settings.timeout, As::caller);
    if (registry == nullptr)
        return exit_unreachable; // and told
    int status = exit_done;
    for (const auto &[db, of_db] : entries)
        if (status == exit_done)
            status = send_entries(arguments, settings, *host, registry.get(), of_db, results);
    if (status == exit_done)
        results.finish();
    return status;
}

} // namespace

const Commands registry_transfer_commands = commands;

} // namespace velia::cli
