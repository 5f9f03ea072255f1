// What can be seen of a host in its own files.
#include <cli/doctor.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cli/daemon_program.h>
#include <common/local_road.h>
#include <support/imsg.h>
#include <support/sysutl.h>
#include <support/tbs.h>
#include <veliaxdr/rgy_local.h>
#include <veliaxdr/rvzd_socket.h>

namespace velia::cli {

namespace {

namespace fs = std::filesystem;

constexpr mode_t private_mode = 0640;
constexpr mode_t all_rights = 07777;
constexpr uint64_t free_bytes_least = 64 << 20;
constexpr const char *database_file = "registry.db";
constexpr const char *trace_file = "registry.db.made";
constexpr const char *directories[] = {"", "config", "host/config", "host/priv", "host/data", "log"};

std::string octal(mode_t mode) {
    std::array<char, 16> text;
    snprintf(text.data(), text.size(), "%04o", static_cast<unsigned>(mode & all_rights));
    return text.data();
}

std::string quoted(const std::string &path) {
    return "'" + path + "'";
}

struct Status {
    explicit Status(const std::string &path) : is_there(lstat(path.c_str(), &of) == 0), error_number(errno) {}
    struct stat of = {};
    bool is_there;
    int error_number;
};

using Addresses = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

Addresses addresses_of(const std::string &host, int &code) {
    addrinfo *list = nullptr;
    code = sysutl_host_addr(host.c_str(), nullptr, SOCK_DGRAM, &list);
    return {code == 0 ? list : nullptr, freeaddrinfo};
}

std::string numeric(const sockaddr *address) {
    std::array<char, SYSUTL_ADDRESS_TEXT_SIZE> text = {};
    sysutl_host_numeric(address, text.size(), text.data(), 0, 0);
    return text.data();
}

// Only an address of this host can be bound.
bool is_of_this_host(const addrinfo &entry) {
    const int fd = socket(entry.ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    ks_sockaddr_storage_t address = {};
    memcpy(&address, entry.ai_addr, std::min<size_t>(entry.ai_addrlen, sizeof address));
    sysutl_sockaddr_set_port(&address.base, 0);
    const bool is_bound = bind(fd, &address.base, sysutl_sockaddr_size(&address.base)) == 0;
    close(fd);
    return is_bound;
}

bool is_writable_by_others(const struct stat &status) {
    return (status.st_mode & S_IWOTH) != 0 && (status.st_mode & S_ISVTX) == 0;
}

void look_at_directory(Visit &visit, const std::string &path) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0)
        visit.fail(path, imsg_strerror(errno), "mkdir -p " + quoted(path));
    else if (!S_ISDIR(status.st_mode))
        visit.fail(path, "is no directory", "put a directory in its place");
    else if (is_writable_by_others(status))
        visit.fail(path, "every user may write there, by the mode " + octal(status.st_mode),
                   "chmod o-w " + quoted(path));
    else
        visit.ok(path, "mode " + octal(status.st_mode));
}

void look_at_private_file(Visit &visit, const std::string &path, uid_t owner) {
    const Status status(path);
    if (!status.is_there || S_ISDIR(status.of.st_mode))
        return;
    if (S_ISLNK(status.of.st_mode))
        visit.fail(path, "is a symbolic link, and the daemon does not start", "put the file itself there");
    else if (S_ISREG(status.of.st_mode) && (status.of.st_mode & all_rights & ~private_mode) != 0)
        visit.fail(path, "is open to others, by the mode " + octal(status.of.st_mode), "chmod 0640 " + quoted(path));
    else if (status.of.st_uid != owner)
        visit.fail(path,
                   "belongs to user " + std::to_string(status.of.st_uid) + ", its directory to user " +
                       std::to_string(owner),
                   "chown " + std::to_string(owner) + " " + quoted(path));
    else
        visit.ok(path, "mode " + octal(status.of.st_mode));
}

bool accepts(const std::string &directory, const std::string &name) {
    const LocalRoadAddress address(directory.c_str(), name.c_str());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const bool is_accepted = fd >= 0 && address.is_good() && connect(fd, address.get(), address.length()) == 0;
    const int error_number = errno;
    close(fd);
    errno = error_number;
    return is_accepted;
}

uint64_t free_bytes(const std::string &directory) {
    struct statvfs status = {};
    return statvfs(directory.c_str(), &status) == 0 ? uint64_t{status.f_bavail} * status.f_frsize : UINT64_MAX;
}

// The daemon's program looks at each page, also while its daemon works.
void look_at_pages(Visit &visit, const std::string &path) {
    const auto end = run_program(daemon_program(), {"--check-registry"}, nullptr, Errors::kept);
    const std::string advice =
        "see which save of it is whole with \"rvzd_server --check-registry FILE\", and bring it back with "
        "\"rvzd_server --restore-registry FILE\"";
    if (end.status < 0)
        visit.warn(path,
                   std::string("rvzd_server, which looks at it, could not be run: ") + imsg_strerror(end.error_number),
                   "put its directory on PATH");
    else if (end.status != 0)
        visit.fail(path, end.errors.substr(0, end.errors.find('\n')), advice);
    else
        visit.ok(path, "is whole");
}

} // namespace

std::string path_below_root(const std::string &name) {
    std::array<char, TBS_PATH_SIZE> directory;
    if (tbs_product_host_priv_dir(directory.data(), "") != TBS_ST_OK)
        return name;
    const std::string path = directory.data();
    return path.substr(0, path.rfind("host/priv")) + name;
}

void look_at_names(Visit &visit) {
    int code = 0;
    const auto list = addresses_of(visit.host(), code);
    if (list == nullptr)
        return visit.fail(visit.host(), std::string("the name has no address: ") + gai_strerror(code),
                          "write its name and addresses into " + quoted(path_below_root("config/hosts.conf")));
    for (const auto *entry = list.get(); entry != nullptr; entry = entry->ai_next) {
        const std::string address = numeric(entry->ai_addr);
        if (visit.is_here() && !is_of_this_host(*entry))
            visit.fail(address, "this host's name stands for an address that it does not have",
                       "put it right in " + quoted(path_below_root("config/hosts.conf")) + ", or see VELIA_HOSTNAME");
        else
            visit.ok(address, "is an address of " + visit.host());
    }
}

// Without an entry the library warns, and that is told.
void look_at_port(Visit &visit) {
    uint16_t port = 0;
    rvzd_get_port(nullptr, &port, AF_UNSPEC);
    const char *service = nullptr;
    const char *protocol = nullptr;
    const char *marker = nullptr;
    uint16_t well_known = 0;
    rvzdsvr_get_server_socket(&service, &protocol, &marker, &well_known);
    const std::string marker_path = path_below_root("host/priv/" + std::string(marker));
    const bool has_marker = Status(marker_path).is_there;
    addrinfo *entries = nullptr;
    uint16_t of_service = 0;
    if (sysutl_host_addr(nullptr, service, SOCK_DGRAM, &entries) == 0 && entries != nullptr) {
        sysutl_sockaddr_get_port(entries->ai_addr, &of_service);
        freeaddrinfo(entries);
    }
    if (has_marker && of_service != 0 && ntohs(of_service) != well_known)
        return visit.fail(marker_path,
                          "makes this host use port " + std::to_string(well_known) + ", while the site's is " +
                              std::to_string(ntohs(of_service)),
                          "remove one of them: the file, or the service " + std::string(service));
    visit.ok(visit.host(), "port " + std::to_string(ntohs(port)) + (has_marker ? ", by its marker file" : ""));
}

void look_at_directories(Visit &visit) {
    for (const char *name : directories)
        look_at_directory(visit, path_below_root(name));
}

void look_at_private_files(Visit &visit) {
    const std::string directory = path_below_root("host/priv");
    const Status owner(directory);
    std::error_code error;
    for (const auto &entry : fs::directory_iterator(directory, error))
        look_at_private_file(visit, entry.path().string(), owner.of.st_uid);
    if (error)
        visit.warn(directory, "its files cannot be seen: " + error.message(), "run this as the daemon's user");
}

void look_at_role_file(Visit &visit) {
    const std::string path = path_below_root("host/config/rgy_svr.conf");
    const std::unique_ptr<char, decltype(&free)> word(rgy_get_svr_type_str(), free);
    const int32_t type = rgy_get_svr_type();
    const bool is_server = type != RGY_SVR_NONE;
    const std::string none = name_of_role(RGY_SVR_NONE);
    if (word != nullptr && *word != '\0' && !is_server && none.substr(0, none.find(' ')) != word.get())
        return visit.fail(path, "holds no role: " + std::string(word.get()),
                          "write master, standby, backup or slave there");
    if (is_server && tbs_product_comp_test(1) == 0)
        return visit.fail(path_below_root("config/client_only"),
                          "says that this is no server, but it has a role: " + name_of_role(type),
                          "remove it, or " + quoted(path));
    const auto &answer = visit.ask(visit.host());
    if (answer.is_there() && answer.registry->role != type)
        return visit.warn(path,
                          "says '" + name_of_role(type) + "', and the daemon goes by '" +
                              name_of_role(answer.registry->role) + "'",
                          answer.registry->role == RGY_SVR_NONE ? "see its log, which tells why it serves no registry"
                                                                : "write the role there that is meant");
    visit.ok(path, is_server ? name_of_role(type) : "no registry server");
}

void look_at_local_road(Visit &visit) {
    const std::string directory = path_below_root(local_road_directory);
    std::error_code error;
    bool has_any = false;
    for (const auto &entry : fs::directory_iterator(directory, error)) {
        const std::string name = entry.path().filename().string();
        if (!fs::is_socket(entry.symlink_status(error)))
            continue;
        if (accepts(directory, name)) {
            has_any = true;
            visit.ok(entry.path().string(), "is answered");
        } else {
            visit.warn(entry.path().string(), std::string("is not answered: ") + imsg_strerror(errno),
                       "start the daemon, which makes it anew");
        }
    }
    if (!has_any)
        visit.fail(directory, "nobody answers callers of this host", "start rvzd_server");
}

void look_at_database(Visit &visit) {
    const std::string path = path_below_root("host/priv/" + std::string(database_file));
    const std::string trace = path_below_root("host/priv/" + std::string(trace_file));
    const Status status(path);
    if (!status.is_there && Status(trace).is_there)
        return visit.fail(path, "is gone, though this host had a registry",
                          rgy_get_svr_type() == RGY_SVR_MASTER
                              ? "put a save of it there, with \"rvzd_server --restore-registry FILE\""
                              : "remove " + quoted(trace) + " and start the daemon again: it copies its master");
    if (!status.is_there) {
        const auto &answer = visit.ask(visit.host());
        const bool is_elsewhere = answer.is_there() && answer.registry->role != RGY_SVR_NONE;
        return visit.ok(path, is_elsewhere ? "there is none: the registry is in a database" : "there is none");
    }
    const std::string directory = path_below_root("host/priv");
    if (free_bytes(directory) < free_bytes_least)
        visit.fail(directory, "less than 64 MiB are free on its disk", "make room there");
    if (access(path.c_str(), R_OK) != 0)
        return visit.warn(path, std::string("cannot be read: ") + imsg_strerror(errno),
                          "run this as the daemon's user");
    look_at_pages(visit, path);
}

} // namespace velia::cli
