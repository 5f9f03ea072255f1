// veliactl registry save: the registry of a host as one file, through its daemon, while that works. The file has its
// name when all of it is on disk.
#include <cli/registry.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cli/broker.h>
#include <cli/commands.h>
#include <cli/messages.h>
#include <cli/new_file.h>
#include <cli/progress_line.h>
#include <cli/results.h>
#include <cli/waits.h>
#include <support/imsg.h>
#include <veliaxdr/rvzd_daemon.h>

namespace velia::cli {

namespace {

constexpr int between_looks_ms = 50;

struct Arguments {
    std::string file;
    std::string host;
};

Options options_of(Arguments &arguments) {
    return {{.name = "FILE", .help = "file to save it in", .target = &arguments.file, .is_required = true},
            registry_host_option(arguments.host)};
}

int save(const Arguments &arguments, const Settings &settings);

constexpr Column columns[] = {{"file", Type::text, "in which the registry is saved"},
                              {"registry", Type::text, "host of the registry"},
                              {"bytes", Type::integer, "of the file"}};
constexpr Output output = {Output::Shape::one, columns};

constexpr const char *notes =
    R"(The file holds the registry of one moment, all of it or none: it gets its name when it is whole and on disk. On a
terminal the progress is shown. rvzd_server --restore-registry puts it back, --check-registry looks whether it is whole.
)";

constexpr Command commands[] = {
    {.path = "registry save",
     .help = "Save the registry in a file, while its daemon works",
     .examples = {"veliactl registry save /backup/registry.saved",
                  "veliactl registry save registry.saved --host build8 --output json"},
     .notes = notes,
     .make = call_of<save, options_of>,
     .output = &output},
};

class Reply {
public:
    Reply() = default;
    ~Reply() { rvzd_registry_save_free(&record_); }
    Reply(const Reply &) = delete;
    Reply &operator=(const Reply &) = delete;

    rvzd_registry_save_reply_t *get() { return &record_; }
    const rvzd_registry_save_reply_t *operator->() const { return &record_; }

private:
    rvzd_registry_save_reply_t record_ = {};
};

void show_progress(const rvzd_registry_save_reply_t &reply, uint64_t arrived, ProgressLine &line) {
    const bool is_made = reply.size != 0;
    const uint64_t done = is_made ? arrived : reply.pages_done;
    if (const uint64_t all = is_made ? reply.size : reply.pages; all > 0)
        line.show(std::string(is_made ? "fetching: " : "copying: ") + std::to_string(done * 100 / all) + " %");
}

// Somebody may have named the wrong file.
bool may_be_replaced(const std::string &name) {
    constexpr char magic[] = "SQLite format 3";
    if (!std::filesystem::exists(name))
        return true;
    std::ifstream file;
    if (std::filesystem::is_regular_file(name)) // a pipe would be waited for
        file.open(name, std::ios::binary);
    std::array<char, sizeof magic> begin = {};
    return file.is_open() && (file.read(begin.data(), begin.size()) && memcmp(begin.data(), magic, sizeof magic) == 0);
}

int tell_no_file(const std::string &file) {
    tell_failure(TBS_ST_ERROR, "", "'%s' could not be written: %s\n", file.c_str(), imsg_strerror(errno));
    return exit_failed;
}

int tell_not_saved(tbs_status_t status, const std::string &host, const std::string &why) {
    tell_failure(status, host, "The registry on host '%s' was not saved: %s\n", host.c_str(), why.c_str());
    return status == TBS_ST_RPC_FAILED ? exit_unreachable : exit_failed;
}

// Piece by piece, and with waits for the daemon while it makes its copy. `size` is of the whole.
int fetch(rvzd_handle_t *daemon, const std::string &host, const Arguments &arguments, const Settings &settings,
          NewFile &file, uint64_t &size) {
    ProgressLine line;
    const auto not_saved = [&](tbs_status_t status, const std::string &why) {
        line.wipe();
        return tell_not_saved(status, host, why);
    };
    uint64_t number = 0;
    for (uint64_t arrived = 0; !are_waits_over();) {
        begin_wait(settings.timeout);
        Reply reply;
        const auto status = rvzd_registry_save(daemon, number, arrived, reply.get());
        if (status != TBS_ST_OK)
            return not_saved(status, status == TBS_ST_TRY_AGAIN ? "its daemon is busy with another save"
                                                                : tbs_strerror(status));
        if (*reply->failure != '\0')
            return not_saved(TBS_ST_ERROR, reply->failure);
        number = reply->save;
        size = reply->size;
        show_progress(*reply.get(), arrived, line);
        if (size == 0)
            poll(nullptr, 0, between_looks_ms);
        else if (arrived >= size)
            return exit_done;
        else if (!file.write_all(reply->bytes, reply->count)) {
            line.wipe();
            return tell_no_file(arguments.file);
        }
        arrived += reply->count;
    }
    return exit_failed;
}

int save(const Arguments &arguments, const Settings &settings) {
    const auto host = settled_host(arguments.host);
    if (!host)
        return exit_failed;
    if (!may_be_replaced(arguments.file)) {
        tell_failure(TBS_ST_ALREADY_EXISTS, "", "'%s' is no saved registry, and is not replaced\n",
                     arguments.file.c_str());
        return exit_failed;
    }
    const Broker daemon = reach_broker(*host, RVZD_PROTOCOL_TCP, settings.timeout);
    if (daemon == nullptr)
        return exit_unreachable;
    NewFile file(arguments.file, S_IRUSR | S_IWUSR); // it holds the hash of the password
    if (!file.is_open())
        return tell_no_file(arguments.file);
    uint64_t size = 0;
    const int status = fetch(daemon.get(), *host, arguments, settings, file, size);
    if (status != exit_done)
        return status;
    if (!file.finish())
        return tell_no_file(arguments.file);
    Results results(output, settings, Results::Of::change);
    results.add({arguments.file, *host, size});
    results.finish();
    return exit_done;
}

} // namespace

const Commands registry_save_commands = commands;

} // namespace velia::cli
