// The writer of the client list file. It writes to the path that it is given, and has the file on disk when it returns;
// making a new file the current one is for the daemon.
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <netdb.h>
#include <unistd.h>

#include <common/trace.h>
#include <common/with.h>
#include <support/date.h>
#include <veliaxdr/rvzd_hosts.h>

using namespace velia;

namespace {

constexpr char subsystem[] = "clnt_list";
constexpr char version_key[] = "-dbversion";
constexpr char version[] = "1.0";
constexpr size_t address_size = 1025; // as the resolver's longest name
constexpr int entering_level = 3;
constexpr int lines_level = 4;

struct TextItem {
    const char *key;
    char *clnt_hostinfo_t::*text;
};

constexpr TextItem text_items[] = {{"-hostname", &clnt_hostinfo_t::hostname},
                                   {"-product", &clnt_hostinfo_t::product},
                                   {"-version", &clnt_hostinfo_t::version},
                                   {"-osname", &clnt_hostinfo_t::osname},
                                   {"-osversion", &clnt_hostinfo_t::osversion},
                                   {"-machine", &clnt_hostinfo_t::machine},
                                   {"-registry_host", &clnt_hostinfo_t::registry_host},
                                   {"-region", &clnt_hostinfo_t::region}};

// The writers give 0, or the errno value of the first write that failed. The stream forgets what it could not write and
// takes more, so that a later write that succeeds proves nothing.
int write_item(FILE *stream, const char *key, const char *value) {
    return fprintf(stream, "%s=%s;", key, value) < 0 ? errno : 0;
}

ks_sockaddr_storage_t plain_address(const ks_sockaddr_storage_t &address) {
    ks_sockaddr_storage_t plain = address;
    if (sysutl_is_addr_v4mapped(&address)) {
        plain = {};
        sysutl_get_v4mapped_addr(&address, &plain.ipv4);
    }
    return plain;
}

// An address that cannot be written leaves an empty value, and the line is written all the same.
int write_address(FILE *stream, const ks_sockaddr_storage_t &address) {
    const ks_sockaddr_storage_t plain = plain_address(address);
    char text[address_size] = "";
    if (sysutl_host_numeric(&plain.base, sizeof text, text, 0, 0) != 0) {
        text[0] = '\0';
        imsg_print_shared(IMSG_ERROR, subsystem, &_tbs_cmsg_tbs_msg_table, TBS_MSG_OPERATION_FAILED,
                          "sysutl_host_numeric", "Unable to resolve numeric hostname and port");
    }
    return write_item(stream, "-address", text);
}

int write_header(FILE *stream) {
    return fprintf(stream, "%s=%s;\n", version_key, version) < 0 ? errno : 0;
}

int write_entry(FILE *stream, const clnt_entry_t &entry) {
    int error_number = write_address(stream, entry.address);
    for (const auto &[key, text] : text_items)
        if (error_number == 0 && entry.hostinfo.*text != nullptr)
            error_number = write_item(stream, key, entry.hostinfo.*text);
    if (error_number == 0 && entry.registry_time != 0)
        error_number = write_item(stream, "-registry", date_fmt_token_date_time(entry.registry_time));
    if (error_number != 0)
        return error_number;
    const char *options = entry.hostinfo.options != nullptr ? entry.hostinfo.options : "";
    return fprintf(stream, "%s\n", options) < 0 ? errno : 0;
}

int write_lines(FILE *stream, uint32_t count, const clnt_entry_t *entries) {
    int error_number = write_header(stream);
    for (uint32_t i = 0; i < count && error_number == 0; ++i)
        error_number = write_entry(stream, entries[i]);
    return error_number;
}

template <class... Arguments>
void trace_message(int level, int position, Arguments... arguments) {
    if (is_traced(subsystem, level))
        imsg_print(IMSG_TRACE, &_clnt_list_rvzd_msg_table, position, arguments...);
}

tbs_status_t failed(int position, const char *path, int error_number) {
    imsg_print(IMSG_ERROR, &_clnt_list_rvzd_msg_table, position, path, imsg_strerror(error_number));
    return tbs_errno2status(error_number);
}

// A pipe that nobody reads from is not waited for.
FILE *open_stream(const char *path) {
    constexpr mode_t mode = 0666;
    const int descriptor = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, mode);
    FILE *stream = descriptor >= 0 ? fdopen(descriptor, "w") : nullptr;
    if (stream == nullptr && descriptor >= 0)
        close(descriptor);
    return stream;
}

FILE *open_file(const char *path, tbs_status_t &status) {
    FILE *stream = open_stream(path);
    if (stream == nullptr) {
        const int error_number = errno;
        status = tbs_errno2status(error_number);
        imsg_print_shared(IMSG_ERROR, subsystem, &_tbs_cmsg_tbs_msg_table, TBS_MSG_CANNOT_OPEN, path,
                          imsg_strerror(error_number));
    }
    return stream;
}

tbs_status_t write_file(const char *path, uint32_t count, const clnt_entry_t *entries, FILE *&stream) {
    tbs_status_t status = TBS_ST_OK;
    with_inhibit([&] { stream = open_file(path, status); });
    if (stream == nullptr)
        return status;
    const int lost = write_lines(stream, count, entries);
    if (lost != 0)
        return failed(CLNT_LIST_MSG_CANNOT_WRITE, path, lost);
    if (sysutl_fsync_fptr(stream) != 0)
        return failed(CLNT_LIST_MSG_CANNOT_SYNC, path, errno);
    const int error_number = with_inhibit([&] {
        const int result = fclose(stream) == 0 ? 0 : errno;
        stream = nullptr;
        return result;
    });
    if (error_number != 0)
        return failed(CLNT_LIST_MSG_CANNOT_CLOSE, path, error_number);
    trace_message(lines_level, CLNT_LIST_MSG_WROTE_LINES, static_cast<int>(count), path);
    return TBS_ST_OK;
}

} // namespace

void clnt_list_write_header(FILE *stream) {
    write_header(stream);
}

void clnt_list_write_entry(FILE *stream, const clnt_entry_t *entry) {
    write_entry(stream, *entry);
}

tbs_status_t clnt_list_write_file(const char *path, uint32_t count, const clnt_entry_t *entries) {
    trace_message(entering_level, CLNT_LIST_MSG_ENTERING, "clnt_list_write_file");
    if (count == 0 || entries == nullptr || path == nullptr)
        return TBS_ST_INVALID_ARG;
    FILE *stream = nullptr;
    // The variable is cleared before a raise that waits can land, so that the file is closed once.
    const auto close_stream = [&] {
        with_inhibit([&] {
            if (stream != nullptr)
                fclose(stream);
            stream = nullptr;
        });
    };
    return with_release([&] { return write_file(path, count, entries, stream); }, close_stream);
}
