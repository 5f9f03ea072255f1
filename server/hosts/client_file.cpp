#include <server/hosts/client_file.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <common/text_file.h>
#include <server/daemon/private_files.h>
#include <server/loop/unique_fd.h>
#include <support/date.h>
#include <support/fileutl.h>
#include <support/imsg.h>
#include <veliaxdr/rvzd_hosts.h>

namespace velia::server {

namespace {

// A full list at its longest: each client has ten texts of at most 255 bytes.
constexpr FileBounds file_bounds = {64 << 20, text_line_bytes_max};
constexpr uint64_t journal_bytes_max = file_bounds.file_bytes / 2; // and so it can be read, whatever is added next
constexpr std::string_view version_line = "-dbversion=";
constexpr std::string_view known_version = "1.0";

struct TextKey {
    std::string_view name;
    ClientText text;
};

constexpr std::array text_keys = {TextKey{"-hostname", CLIENT_HOSTNAME},
                                  TextKey{"-product", CLIENT_PRODUCT},
                                  TextKey{"-version", CLIENT_VERSION},
                                  TextKey{"-osname", CLIENT_OSNAME},
                                  TextKey{"-osversion", CLIENT_OSVERSION},
                                  TextKey{"-machine", CLIENT_MACHINE},
                                  TextKey{"-registry_host", CLIENT_REGISTRY_HOST},
                                  TextKey{"-region", CLIENT_REGION}};

template <class... Arguments>
void print(int severity, int position, Arguments... arguments) {
    imsg_print(severity, &_clnt_list_rvzd_msg_table, position, arguments...);
}

// "-key=value;" off the front; false when it does not begin so.
bool take_item(std::string_view &rest, std::string_view &key, std::string_view &value) {
    const auto equals = rest.find('=');
    const auto end = rest.find(';', equals == std::string_view::npos ? 0 : equals);
    if (!rest.starts_with('-') || equals == std::string_view::npos || end == std::string_view::npos)
        return false;
    key = rest.substr(0, equals);
    value = rest.substr(equals + 1, end - equals - 1);
    if (key.find_first_of(" ;") != std::string_view::npos)
        return false;
    rest.remove_prefix(end + 1);
    return true;
}

bool parse_address(std::string_view value, ks_sockaddr_storage_t &address) {
    const std::string text(value);
    address = {};
    if (inet_pton(AF_INET, text.c_str(), &address.ipv4.sin_addr) == 1) {
        address.ipv4.sin_family = AF_INET;
        return true;
    }
    if (inet_pton(AF_INET6, text.c_str(), &address.ipv6.sin6_addr) != 1)
        return false;
    address.ipv6.sin6_family = AF_INET6;
    return true;
}

bool take_known_item(std::string_view key, std::string_view value, ListedHost &client) {
    if (key == "-registry")
        return date_str_to_time(std::string(value).c_str(), &client.registry_time) != 0;
    const auto known =
        std::find_if(text_keys.begin(), text_keys.end(), [&](const TextKey &row) { return row.name == key; });
    if (known != text_keys.end())
        client.texts[known->text] = value;
    return known != text_keys.end();
}

// Who reads them the second time has had words for what is wrong.
enum class Words { told, kept };

// A line that is too long is one that is not understood.
LineFault take_line(TextFile &file, FileOutcome outcome, const TextLine &line, ClientList &list) {
    ListedHost client;
    if (outcome == FileOutcome::line_too_long) {
        file.skip_line();
        return LineFault::invalid_entry;
    }
    const LineFault fault = parse_client_line({line.text, line.length}, client);
    if (fault == LineFault::none && !list.restore(std::move(client)))
        return LineFault::duplicate_address;
    return fault;
}

void print_fault(LineFault fault, const std::string &file_name, int line_number) {
    print(IMSG_WARNING,
          fault == LineFault::invalid_entry     ? CLNT_LIST_MSG_INVALID_ENTRY
          : fault == LineFault::invalid_address ? CLNT_LIST_MSG_INVALID_ADDRESS
                                                : CLNT_LIST_MSG_DUPLICATE_ADDRESS,
          file_name.c_str(), line_number);
}

void print_failed_read(const std::string &file_name, const TextFile &file, FileOutcome outcome) {
    char words[file_words_size];
    print(IMSG_ERROR, CLNT_LIST_MSG_CANNOT_OPEN, file_name.c_str(), file.why(outcome, words));
}

void read_lines(TextFile &file, const std::string &file_name, ClientList &list, Words words) {
    int line_number = 1;
    int entries = 0;
    TextLine line;
    FileOutcome outcome;
    while ((outcome = file.next_line(line)) == FileOutcome::ok || outcome == FileOutcome::line_too_long) {
        ++line_number;
        const LineFault fault = take_line(file, outcome, line, list);
        if (fault == LineFault::none)
            ++entries;
        else if (words == Words::told)
            print_fault(fault, file_name, line_number);
    }
    if (words == Words::kept)
        return;
    if (outcome != FileOutcome::end)
        print_failed_read(file_name, file, outcome);
    print(IMSG_PLAIN, CLNT_LIST_MSG_READ_LINES, entries, file_name.c_str());
}

enum class Version { known, another, unreadable };

// Of the first line; said, where it is not the known one.
Version read_version(TextFile &file, const std::string &file_name, Words words) {
    TextLine line = {};
    const FileOutcome outcome = file.next_line(line);
    if (outcome == FileOutcome::too_large || outcome == FileOutcome::unreadable) {
        if (words == Words::told)
            print_failed_read(file_name, file, outcome);
        return Version::unreadable;
    }
    std::string_view version(line.text, line.length);
    const bool has_version = version.starts_with(version_line) && version.ends_with(';');
    version = has_version ? version.substr(version_line.size(), version.size() - version_line.size() - 1)
                          : std::string_view("none");
    if (version == known_version)
        return Version::known;
    if (words == Words::told)
        print(IMSG_ERROR, CLNT_LIST_MSG_UNKNOWN_VERSION, std::string(version).c_str());
    return has_version ? Version::another : Version::unreadable;
}

// Closed also when memory runs out on the way.
struct FileCloser {
    void operator()(TextFile *file) const { file->close(); }
};

bool print_failure(int position, const std::string &name) {
    print(IMSG_ERROR, position, name.c_str(), imsg_strerror(errno));
    return false;
}

// False where there is nothing to read, which is told unless there is no such file.
bool open_file(TextFile &file, const std::string &file_name, Words words) {
    const FileOutcome outcome = file.open(file_name.c_str(), file_bounds);
    if (outcome != FileOutcome::ok && outcome != FileOutcome::absent && words == Words::told)
        print_failed_read(file_name, file, outcome);
    return outcome == FileOutcome::ok;
}

void read_whole_file(const std::string &file_name, ClientList &list, Words words) {
    TextFile file;
    if (!open_file(file, file_name, words))
        return;
    const std::unique_ptr<TextFile, FileCloser> closer(&file);
    switch (read_version(file, file_name, words)) {
    case Version::known:
        return read_lines(file, file_name, list, words);
    case Version::another:
        return list.withhold();
    case Version::unreadable:
        return;
    }
}

// How many lines it has. One without an end is what a killed daemon left of its last.
size_t read_journal(const std::string &file_name, ClientList &list, Words words) {
    TextFile file;
    if (list.is_withheld() || !open_file(file, file_name, words))
        return 0;
    const std::unique_ptr<TextFile, FileCloser> closer(&file);
    size_t lines = 0;
    TextLine line;
    while (file.next_line(line) == FileOutcome::ok && line.has_end) {
        ++lines;
        ListedHost client;
        const LineFault fault = parse_client_line({line.text, line.length}, client);
        if (fault == LineFault::none)
            list.restore_later(std::move(client));
        else if (words == Words::told)
            print_fault(fault, file_name, static_cast<int>(lines));
    }
    return lines;
}

bool write_whole_file(const std::string &file_name, const ClientList &list) {
    const std::string new_name = file_name + ".new";
    const std::string old_name = file_name + ".old";
    std::vector<clnt_entry_t> entries;
    for (const ListedHost &client : list.clients())
        entries.push_back(client.lend(true));
    unlink(new_name.c_str()); // never written through what may be laid there
    if (clnt_list_write_file(new_name.c_str(), static_cast<uint32_t>(entries.size()), entries.data()) != TBS_ST_OK) {
        unlink(new_name.c_str()); // is short, and the disk may be full
        return false;             // told by the writer
    }
    unlink(old_name.c_str());
    if (link(file_name.c_str(), old_name.c_str()) != 0 && errno != ENOENT)
        print_failure(CLNT_LIST_MSG_CANNOT_BACK_UP, file_name); // no reason to lose the new one
    if (fileutl_rename(new_name.c_str(), file_name.c_str()) != 0)
        return print_failure(CLNT_LIST_MSG_CANNOT_REPLACE, new_name);
    return true;
}

struct StreamCloser {
    void operator()(FILE *stream) const { fclose(stream); }
};

struct FreePlain {
    void operator()(char *text) const { free(text); }
};

// As the file has them.
std::string lines_of(const std::vector<ListedHost> &clients) {
    char *bytes = nullptr;
    size_t size = 0;
    std::unique_ptr<FILE, StreamCloser> stream(open_memstream(&bytes, &size));
    if (stream == nullptr)
        throw std::bad_alloc();
    for (const ListedHost &client : clients) {
        const clnt_entry_t entry = client.lend(true);
        clnt_list_write_entry(stream.get(), &entry);
    }
    const bool is_whole = ferror(stream.get()) == 0;
    stream.reset();
    const std::unique_ptr<char, FreePlain> owner(bytes);
    if (!is_whole)
        throw std::bad_alloc();
    return {bytes, size};
}

// Where the last whole line ends; -1 with errno.
off_t end_of_lines(int fd) {
    struct stat status = {};
    if (fstat(fd, &status) != 0)
        return -1;
    if (!S_ISREG(status.st_mode) || static_cast<uint64_t>(status.st_size) > journal_bytes_max) {
        errno = S_ISREG(status.st_mode) ? EFBIG : EINVAL;
        return -1;
    }
    std::array<char, text_line_bytes_max + 1> last;
    const off_t from = std::max<off_t>(status.st_size - static_cast<off_t>(last.size()), 0);
    const ssize_t count = pread(fd, last.data(), last.size(), from);
    if (count < 0)
        return -1;
    const auto end = std::string_view(last.data(), static_cast<size_t>(count)).rfind('\n');
    return end == std::string_view::npos ? from : from + static_cast<off_t>(end) + 1;
}

bool write_at_end(int fd, const std::string &text) {
    const ssize_t count = write(fd, text.data(), text.size());
    if (count >= 0 && static_cast<size_t>(count) != text.size())
        errno = ENOSPC;
    return static_cast<size_t>(count) == text.size() && fdatasync(fd) == 0;
}

} // namespace

std::string journal_of(const std::string &file_name) {
    return file_name + ".journal";
}

std::string former_journal_of(const std::string &file_name) {
    return journal_of(file_name) + ".old";
}

LineFault parse_client_line(std::string_view line, ListedHost &client) {
    std::string_view key;
    std::string_view value;
    if (line.size() > file_bounds.line_bytes || !take_item(line, key, value) || key != "-address")
        return LineFault::invalid_entry;
    if (!parse_address(value, client.address))
        return LineFault::invalid_address;
    for (std::string_view rest = line; take_item(rest, key, value); line = rest)
        if (!take_known_item(key, value, client))
            break;
    client.texts[CLIENT_OPTIONS] = line; // has no key, and ends the line
    return LineFault::none;
}

size_t read_client_file(const std::string &file_name, ClientList &list) {
    read_whole_file(file_name, list, Words::told);
    return read_journal(former_journal_of(file_name), list, Words::told) +
           read_journal(journal_of(file_name), list, Words::told);
}

int add_to_client_journal(const std::string &file_name, const std::vector<ListedHost> &clients) {
    const UniqueFd fd(open(journal_of(file_name).c_str(),
                           O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | O_NOFOLLOW, private_mode));
    const off_t end = fd ? end_of_lines(fd.get()) : -1;
    if (end < 0 || ftruncate(fd.get(), end) != 0)
        return errno;
    if (write_at_end(fd.get(), lines_of(clients)))
        return 0;
    const int error_number = errno;
    return ftruncate(fd.get(), end) == 0 ? error_number : errno;
}

// A journal that stands aside already is what an earlier attempt left.
bool join_client_files(const std::string &file_name) {
    const std::string journal = journal_of(file_name);
    const std::string former = former_journal_of(file_name);
    if (access(former.c_str(), F_OK) != 0 && rename(journal.c_str(), former.c_str()) != 0)
        return errno == ENOENT || print_failure(CLNT_LIST_MSG_CANNOT_REPLACE, journal);
    ClientList list;
    read_whole_file(file_name, list, Words::kept);
    read_journal(former, list, Words::kept);
    if (list.is_withheld() || list.clients().empty() || !write_whole_file(file_name, list))
        return false;
    return unlink(former.c_str()) == 0 || print_failure(CLNT_LIST_MSG_CANNOT_REPLACE, former);
}

} // namespace velia::server
