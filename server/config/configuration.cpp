// The configuration file: lines to words, words to services and options. A line is judged field by field and gives its
// first error; the other lines are judged all the same.
#include <server/config/configuration.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <common/text_file.h>
#include <server/config/place.h>
#include <server/config/words.h>
#include <server/messages.h>
#include <server/registry/postgres.h>

namespace velia::server {

namespace {

// Order of the fields of a service's line.
enum Field : size_t { TRANSPORTS, KIND, PROGRAM, VERSION, CONTROL, USER, GROUP, PATH, FIELD_COUNT };

constexpr uint32_t seconds_max = 86400;
constexpr uint32_t dedicated_processes_default = 32;

template <class Record>
struct NumberKey {
    std::string_view name;
    uint32_t Record::*member;
    uint32_t least;
    uint32_t most;
};

constexpr std::array control_keys = {
    NumberKey<Control>{"max", &Control::processes_max, 1, 1024},
    NumberKey<Control>{"idle", &Control::idle_s, 0, seconds_max},
    NumberKey<Control>{"start", &Control::start_s, 1, seconds_max},
    NumberKey<Control>{"busy", &Control::busy_s, 1, seconds_max},
    NumberKey<Control>{"restarts", &Control::restarts_max, 0, 1000},
};

constexpr std::array option_keys = {
    NumberKey<Options>{"protocol", &Options::protocol, RVZD_PROTOCOL_V70, RVZD_PROTOCOL_CURRENT},
    NumberKey<Options>{"connections", &Options::connections_max, 1, 65536},
    NumberKey<Options>{"idle-connection", &Options::idle_connection_s, 1, seconds_max},
    NumberKey<Options>{"request", &Options::request_s, 1, seconds_max},
    NumberKey<Options>{"registry-copy", &Options::registry_copy_s, 1, seconds_max},
    NumberKey<Options>{"catch-up", &Options::catch_up_s, 0, seconds_max},
    NumberKey<Options>{"jobs", &Options::jobs_max, 1, 1024},
    NumberKey<Options>{"job-output", &Options::job_output_mib, 0, 4096},
    NumberKey<Options>{"take-over", &Options::take_over_s, 5, seconds_max},
};

// An option whose value is no number.
struct TextKey {
    std::string_view name;
    bool (*take)(const std::string &value, Configuration &configuration);
    std::string fault;
};

template <std::string Configuration::*member>
bool take_absolute_path(const std::string &value, Configuration &configuration) {
    configuration.*member = value;
    return value.starts_with('/');
}

bool take_metrics(const std::string &value, Configuration &configuration) {
    configuration.metrics = value;
    return place_of_text(value).has_value();
}

bool take_log_level(const std::string &value, Configuration &configuration) {
    struct Level {
        std::string_view name;
        int least_severity;
    };
    constexpr std::array levels = {Level{"error", IMSG_ERROR}, Level{"warning", IMSG_WARNING},
                                   Level{"info", IMSG_PLAIN}, Level{"trace", IMSG_TRACE}};
    const auto level = std::find_if(levels.begin(), levels.end(), [&](const Level &row) { return row.name == value; });
    if (level != levels.end())
        configuration.log.least_severity = level->least_severity;
    return level != levels.end();
}

bool take_log_format(const std::string &value, Configuration &configuration) {
    configuration.log.is_json = value == "json";
    return value == "json" || value == "text";
}

bool take_store_reads(const std::string &value, Configuration &configuration) {
    configuration.reads_from_copy = value == "copy";
    return value == "copy" || value == "database";
}

const std::array text_keys = {
    TextKey{"store-reads", take_store_reads, "The store-reads are database or copy, not: "},
    TextKey{"tasks", take_absolute_path<&Configuration::tasks_file>, "The file's path is not absolute: "},
    TextKey{"schedule", take_absolute_path<&Configuration::schedule_file>, "The file's path is not absolute: "},
    TextKey{"metrics", take_metrics, "Neither ADDRESS:PORT, [IPV6 ADDRESS]:PORT nor the absolute path of a socket: "},
    TextKey{"log-level", take_log_level, "A log-level is error, warning, info or trace, not: "},
    TextKey{"log-format", take_log_format, "A log-format is text or json, not: "},
};

struct KindName {
    std::string_view name;
    ServerKind kind;
};

constexpr std::array kind_names = {KindName{"shared", ServerKind::shared}, KindName{"dedicated", ServerKind::dedicated},
                                   KindName{"resident", ServerKind::resident}};

// A whole number in decimal, or in hexadecimal behind 0x.
std::optional<uint32_t> to_number(std::string_view text) {
    const bool is_hex = text.starts_with("0x") || text.starts_with("0X");
    if (is_hex)
        text.remove_prefix(2);
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, is_hex ? 16 : 10);
    if (text.empty() || error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return number;
}

template <class Record, size_t Count>
bool set_number(const std::array<NumberKey<Record>, Count> &keys, std::string_view name, std::string_view value,
                Record &record) {
    const auto key = std::find_if(keys.begin(), keys.end(), [&](const auto &row) { return row.name == name; });
    const auto number = to_number(value);
    if (key == keys.end() || !number || *number < key->least || *number > key->most)
        return false;
    record.*(key->member) = *number;
    return true;
}

// Calls the body for each piece between commas until it returns false.
template <class Body>
bool each_piece(std::string_view text, Body &&body) {
    while (true) {
        const auto comma = text.find(',');
        if (!body(text.substr(0, comma)))
            return false;
        if (comma == std::string_view::npos)
            return true;
        text.remove_prefix(comma + 1);
    }
}

bool is_own(const std::string &word) {
    return word == "-";
}

class Parser {
public:
    explicit Parser(const NameLookup &names) : names_(names) {}

    void line(std::string_view text) {
        ++line_;
        if (result_.errors.size() >= CONFIG_ERRORS_MAX)
            return;
        if (text.size() > CONFIG_LINE_LENGTH_MAX)
            return fail(MSG_CONFIG_LINE_TOO_LONG);
        if (text.find('\0') != std::string_view::npos)
            return fail(MSG_CONFIG_FAILURE, "Null byte");
        const Words words = split_words(text);
        if (words.error != nullptr)
            return fail(MSG_CONFIG_FAILURE, words.error);
        if (words.words.empty())
            return;
        if (words.words.front() == "option")
            option(words.words);
        else if (words.words.front() == "access")
            access(words.words);
        else if (words.words.front() == "task")
            task(words.words);
        else if (words.words.front() == "notify")
            notify(words.words);
        else
            service(words.words);
    }

    ConfigurationResult take() { return std::move(result_); }

private:
    void fail(int message, std::string detail = {}) { result_.errors.push_back({message, line_, std::move(detail)}); }

    void option(const std::vector<std::string> &words) {
        if (words.size() > 1 && words[1] == "store")
            return store(words);
        if (words.size() == 3 && words[1] == "store-replica")
            return connection(words[2], "replica's", result_.configuration.registry_replica);
        if (words.size() != 3)
            return fail(MSG_CONFIG_FAILURE, "An option is written: option NAME VALUE");
        for (const auto &key : text_keys)
            if (key.name == words[1])
                return key.take(words[2], result_.configuration) ? void()
                                                                 : fail(MSG_CONFIG_FAILURE, key.fault + words[2]);
        if (!set_number(option_keys, words[1], words[2], result_.configuration.options))
            fail(MSG_CONFIG_FAILURE, "Unknown option or value out of range: " + words[1] + " " + words[2]);
    }

    void store(const std::vector<std::string> &words) {
        auto &database = result_.configuration.registry_database;
        if (words.size() == 3 && words[2] == "sqlite")
            return database.clear();
        if (words.size() != 4 || words[2] != "postgresql")
            return fail(MSG_CONFIG_FAILURE,
                        "The store is written: option store sqlite, or option store postgresql \"CONNECTION\"");
        connection(words[3], "store's", database);
    }

    // It may have a password in it, which is not told.
    void connection(const std::string &conninfo, const std::string &whose, std::string &taken) {
        if (const std::string fault = fault_of_conninfo(conninfo); !fault.empty())
            return fail(MSG_CONFIG_FAILURE, "The " + whose + " connection string is malformed: " + fault);
        taken = conninfo;
    }

    void access(const std::vector<std::string> &words) {
        auto &lines = result_.configuration.access;
        if (words.size() != 3)
            return fail(MSG_CONFIG_FAILURE, "Access is written: access ADDRESS[/BITS] RIGHT[,RIGHT...]");
        if (lines.size() == CONFIG_ACCESS_LINES_MAX)
            return fail(MSG_CONFIG_FAILURE, "Too many access lines");
        const char *fault = nullptr;
        const auto line = access_line(words[1], words[2], fault);
        if (!line)
            return fail(MSG_CONFIG_FAILURE, std::string(fault) + ": " + words[1] + " " + words[2]);
        lines.push_back(*line);
    }

    void task(const std::vector<std::string> &words) {
        auto &tasks = result_.configuration.tasks;
        const auto id = words.size() > 1 ? to_number(words[1]) : std::nullopt;
        if (words.size() < 4 || words.size() > 5 || !id || *id == 0 || !words[3].starts_with('/'))
            return fail(MSG_CONFIG_FAILURE, "A task is written: task NUMBER NAME PROGRAM [TEXT]");
        const bool is_known = std::any_of(tasks.begin(), tasks.end(),
                                          [&](const Task &other) { return other.id == *id || other.name == words[2]; });
        if (is_known || tasks.size() == CONFIG_TASKS_MAX)
            return fail(MSG_CONFIG_FAILURE, is_known ? "The task stands already: " + words[2] : "Too many tasks");
        tasks.push_back({*id, words[2], words[3], words.size() == 5 ? words[4] : ""});
    }

    void notify(const std::vector<std::string> &words) {
        if (words.size() != 2 || !words[1].starts_with('/'))
            return fail(MSG_CONFIG_FAILURE, "The program that notifies is written: notify PROGRAM");
        result_.configuration.notify_program = words[1];
    }

    void service(const std::vector<std::string> &words) {
        if (words.size() < FIELD_COUNT)
            return fail(MSG_CONFIG_INCOMPLETE);
        Service made;
        const bool is_good = transports(words[TRANSPORTS], made) && kind(words[KIND], made) &&
                             identity(words[PROGRAM], words[VERSION], made) && control(words[CONTROL], made) &&
                             account(words[USER], words[GROUP], made) && command(words, made) && is_new(made);
        if (is_good) {
            result_.configuration.services.push_back(std::move(made));
            lines_.push_back(line_);
        }
    }

    bool transports(const std::string &word, Service &made) {
        return each_piece(word, [&](std::string_view name) {
            bool *flag = name == "udp" ? &made.udp : name == "tcp" ? &made.tcp : nullptr;
            if (flag == nullptr || *flag) {
                fail(MSG_CONFIG_PROTOCOL, word);
                return false;
            }
            return *flag = true;
        });
    }

    bool kind(const std::string &word, Service &made) {
        for (const auto &[name, kind] : kind_names)
            if (name == word) {
                made.kind = kind;
                if (kind == ServerKind::dedicated)
                    made.control.processes_max = dedicated_processes_default;
                return true;
            }
        fail(MSG_CONFIG_KIND, word);
        return false;
    }

    bool identity(const std::string &program, const std::string &version, Service &made) {
        const auto program_number = to_number(program);
        if (!program_number || *program_number == 0 || *program_number == RVZD_PROGRAM) {
            fail(MSG_CONFIG_PROGRAM);
            return false;
        }
        const auto version_number = to_number(version);
        if (!version_number) {
            fail(MSG_CONFIG_VERSION);
            return false;
        }
        made.program = *program_number;
        made.version = *version_number;
        return true;
    }

    bool control(const std::string &word, Service &made) {
        if (is_own(word))
            return true;
        const bool is_good = each_piece(word, [&](std::string_view piece) {
            const auto equals = piece.find('=');
            return equals != std::string_view::npos &&
                   set_number(control_keys, piece.substr(0, equals), piece.substr(equals + 1), made.control);
        });
        if (!is_good)
            fail(MSG_CONFIG_CONTROL);
        return is_good;
    }

    bool account(const std::string &user, const std::string &group, Service &made) {
        if (!is_own(user) && !(made.user = names_.user(user))) {
            fail(MSG_CONFIG_UID);
            return false;
        }
        if (!is_own(group) && !(made.group = names_.group(group))) {
            fail(MSG_CONFIG_GID);
            return false;
        }
        return true;
    }

    bool command(const std::vector<std::string> &words, Service &made) {
        made.path = words[PATH];
        made.arguments.assign(words.begin() + FIELD_COUNT, words.end());
        if (made.arguments.size() > CONFIG_ARGUMENTS_MAX) {
            fail(MSG_CONFIG_ARGUMENTS);
            return false;
        }
        if (!made.path.starts_with('/')) {
            fail(MSG_CONFIG_FAILURE, "The program's path is not absolute");
            return false;
        }
        return true;
    }

    // Two lines that answer for the same program, version and transport leave open which is meant.
    bool is_new(const Service &made) {
        const auto &services = result_.configuration.services;
        for (size_t i = 0; i < services.size(); ++i) {
            const bool shares_transport = (services[i].udp && made.udp) || (services[i].tcp && made.tcp);
            if (shares_transport && services[i].program == made.program && services[i].version == made.version) {
                fail(MSG_CONFIG_FAILURE, "The service stands already on line " + std::to_string(lines_[i]));
                return false;
            }
        }
        return true;
    }

    const NameLookup &names_;
    ConfigurationResult result_;
    std::vector<unsigned long> lines_; // of each service
    unsigned long line_ = 0;
};

// The lines' lengths are judged by the parser.
constexpr FileBounds file_bounds = {CONFIG_FILE_BYTES_MAX, text_line_bytes_max};

// At most what the bound allows, so that memory is asked for what there is.
FileOutcome read_whole(TextFile &file, std::string &text) {
    std::array<char, 16384> piece;
    size_t count = 0;
    FileOutcome outcome;
    while ((outcome = file.next_bytes(piece.data(), piece.size(), count)) == FileOutcome::ok && count > 0)
        text.append(piece.data(), count);
    return outcome;
}

ConfigurationResult failed_result(int message, unsigned long line, const TextFile &file, FileOutcome outcome) {
    char words[file_words_size];
    return {{}, {{message, line, file.why(outcome, words)}}};
}

// A thread may ask, and so none of the library's own storage is used.
template <class Entry, class Find>
std::optional<uint32_t> number_of_name(Find &&find, const std::string &name, uint32_t Entry::*number) {
    constexpr size_t texts_at_first = 4096;
    constexpr size_t texts_max = 1 << 20; // a group's members
    Entry entry = {};
    Entry *found = nullptr;
    std::vector<char> texts(texts_at_first);
    while (find(name.c_str(), &entry, texts.data(), texts.size(), &found) == ERANGE && texts.size() < texts_max)
        texts.resize(texts.size() * 2);
    return found != nullptr ? std::optional(found->*number) : std::nullopt;
}

// The files that the lines name; a fault of one is no line's.
void read_definitions(ConfigurationResult &result) {
    auto &configuration = result.configuration;
    std::string fault;
    if (!configuration.tasks_file.empty())
        fault = read_tasks(configuration.tasks_file, configuration.tasks, CONFIG_TASKS_MAX);
    if (fault.empty() && !configuration.schedule_file.empty())
        fault = read_schedule(configuration.schedule_file, configuration.schedule);
    if (!fault.empty())
        result.errors.push_back({MSG_CONFIG_FAILURE, 0, fault});
}

// Whoever else may lay a link there would choose what the daemon starts, and as whom.
bool is_link_of_stranger(const std::string &file_name) {
    struct stat status = {};
    return lstat(file_name.c_str(), &status) == 0 && S_ISLNK(status.st_mode) && status.st_uid != 0 &&
           status.st_uid != geteuid();
}

} // namespace

NameLookup system_names() {
    NameLookup names;
    names.user = [](const std::string &name) -> std::optional<uid_t> {
        if (const auto number = to_number(name); number && *number != UINT32_MAX)
            return static_cast<uid_t>(*number);
        return number_of_name<passwd>(getpwnam_r, name, &passwd::pw_uid);
    };
    names.group = [](const std::string &name) -> std::optional<gid_t> {
        if (const auto number = to_number(name); number && *number != UINT32_MAX)
            return static_cast<gid_t>(*number);
        return number_of_name<group>(getgrnam_r, name, &group::gr_gid);
    };
    return names;
}

ConfigurationResult parse_configuration(std::string_view text, const NameLookup &names) {
    Parser parser(names);
    while (!text.empty()) {
        const auto end = text.find('\n');
        parser.line(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return parser.take();
}

ConfigurationResult read_configuration(const std::string &file_name, const NameLookup &names) {
    if (is_link_of_stranger(file_name))
        return {{},
                {{MSG_CONFIG_UNREADABLE, 0, "It is a symbolic link of a user who is neither root nor the daemon's"}}};
    TextFile file;
    FileOutcome outcome = file.open(file_name.c_str(), file_bounds);
    if (outcome != FileOutcome::ok && !is_refused(outcome))
        return failed_result(MSG_CONFIG_UNREADABLE, 0, file, outcome);
    std::string text;
    if (outcome == FileOutcome::ok) {
        outcome = read_whole(file, text);
        file.close();
    }
    if (outcome != FileOutcome::ok) {
        const auto lines = std::count(text.begin(), text.end(), '\n');
        return failed_result(MSG_CONFIG_READ_ERROR, static_cast<unsigned long>(lines) + 1, file, outcome);
    }
    auto result = parse_configuration(text, names);
    if (result.errors.empty())
        read_definitions(result);
    return result;
}

void print_configuration(const std::string &file_name, const Configuration &configuration, const char *what_became) {
    imsg_print(IMSG_PLAIN, "The configuration file \"%s\" %s: %zu services, %zu tasks, %zu access lines.\n",
               IMSG_FORMAT, file_name.c_str(), what_became, configuration.services.size(), configuration.tasks.size(),
               configuration.access.size());
}

void print_configuration_errors(const std::string &file_name, const std::vector<ConfigurationError> &errors) {
    for (const auto &[message, line, detail] : errors) {
        if (message == MSG_CONFIG_UNREADABLE)
            print(IMSG_ERROR, message, file_name.c_str(), detail.c_str());
        else if (message == MSG_CONFIG_ARGUMENTS)
            print(IMSG_ERROR, message, file_name.c_str(), line, static_cast<int>(CONFIG_ARGUMENTS_MAX));
        else // Rows without a word of their own take no third argument, and printf leaves it alone.
            print(IMSG_ERROR, message, file_name.c_str(), line, detail.c_str());
    }
}

} // namespace velia::server
