// The daemon of a benchmark as a child process.
#include <bench/support/site.h>

#include <bench/support/placement.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {

namespace {

constexpr const char *config_name = "/host/config/rvzd_server.conf";

[[noreturn]] void give_up(const char *what) {
    perror(what);
    exit(1);
}

std::string make_root() {
    std::string path = (std::filesystem::temp_directory_path() / "velia-bench-XXXXXX").string();
    if (mkdtemp(path.data()) == nullptr)
        give_up("no directory for the site");
    return path;
}

bool can_bind(int type, uint16_t port) {
    const int fd = socket(AF_INET6, type | SOCK_CLOEXEC, 0);
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    const bool bound = bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    close(fd);
    return bound;
}

void write_file(const std::string &path, const std::string &text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path) << text;
}

void run_daemon(const std::string &daemon, const std::string &config, int ready_fd) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    pin(End::server);
    const int null = open("/dev/null", O_RDWR);
    dup2(null, STDOUT_FILENO);
    const std::string ready = std::to_string(ready_fd);
    execl(daemon.c_str(), daemon.c_str(), "-f", config.c_str(), "--foreground", "--ready-fd", ready.c_str(), nullptr);
    give_up(daemon.c_str());
}

} // namespace

uint16_t free_port() {
    constexpr int port_least = 20000; // below those that the system gives to clients
    constexpr int port_most = 32000;
    static std::mt19937 random(std::random_device{}());
    for (int tries = 0; tries < 1000; ++tries) {
        const auto port = static_cast<uint16_t>(std::uniform_int_distribution(port_least, port_most)(random));
        if (can_bind(SOCK_DGRAM, port) && can_bind(SOCK_STREAM, port))
            return port;
    }
    give_up("no free port");
}

Site::Site(const std::string &daemon, const std::string &sample_server) : daemon_program_(daemon), root_(make_root()) {
    pin(End::client);
    write_file(root_ + "/config/hosts.conf", std::string(host) + " 127.0.0.1\n");
    write_file(root_ + config_name, "udp,tcp shared " + std::to_string(sample_program) + " 1 max=1,idle=0 - - " +
                                        sample_server + " --quiet-seconds 3600\n");
    write_file(root_ + "/host/config/rgy_svr.conf", "master");
    write_file(root_ + "/host/config/rgy_hosts.conf", std::string(host) + "\n\n");
    write_file(root_ + "/host/priv/.keep", "");
    setenv("VELIA_ROOT", root_.c_str(), 1);
    setenv("VELIA_HOSTNAME", host, 1);
    for (int tries = 0; tries < 5; ++tries) {
        port_ = free_port();
        write_file(root_ + "/config/services.conf", "rvzd " + std::to_string(port_) + "\n");
        if (start())
            return;
    }
    give_up("the daemon did not come up");
}

void Site::restart(const std::string &lines, const std::function<void()> &between) {
    kill(daemon_, SIGTERM);
    waitpid(daemon_, nullptr, 0);
    between();
    std::ofstream(root_ + config_name, std::ios::app) << lines;
    if (!start())
        give_up("the daemon did not come up again");
}

bool Site::start() {
    int ready[2];
    if (pipe(ready) != 0)
        give_up("pipe");
    daemon_ = fork();
    if (daemon_ == 0) {
        close(ready[0]);
        run_daemon(daemon_program_, root_ + config_name, ready[1]);
    }
    close(ready[1]);
    char answer = '\0';
    const bool serves = read(ready[0], &answer, 1) == 1 && answer == 'R';
    close(ready[0]);
    if (!serves)
        waitpid(daemon_, nullptr, 0);
    return serves;
}

Site::~Site() {
    kill(daemon_, SIGTERM);
    waitpid(daemon_, nullptr, 0);
    std::filesystem::remove_all(root_);
}

} // namespace bench
