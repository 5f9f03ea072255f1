// The daemon of a benchmark as a child process.
#include <bench/support/site.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {

namespace {

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

// A port that the system gave and that is free again.
uint16_t free_port() {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    socklen_t length = sizeof address;
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), length) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0)
        give_up("no free port");
    close(fd);
    return ntohs(address.sin_port);
}

void write_file(const std::string &path, const std::string &text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path) << text;
}

void run_daemon(const std::string &daemon, const std::string &config, int ready_fd) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    const int null = open("/dev/null", O_RDWR);
    dup2(null, STDOUT_FILENO);
    const std::string ready = std::to_string(ready_fd);
    execl(daemon.c_str(), daemon.c_str(), "-f", config.c_str(), "--foreground", "--ready-fd", ready.c_str(), nullptr);
    give_up(daemon.c_str());
}

} // namespace

Site::Site(const std::string &daemon, const std::string &sample_server) : root_(make_root()), port_(free_port()) {
    write_file(root_ + "/config/services.conf", "rvzd " + std::to_string(port_) + "\n");
    write_file(root_ + "/config/hosts.conf", std::string(host) + " 127.0.0.1\n");
    const std::string config = root_ + "/host/config/rvzd_server.conf";
    write_file(config, "udp,tcp shared " + std::to_string(sample_program) + " 1 max=1,idle=0 - - " + sample_server +
                           " --quiet-seconds 3600\n");
    write_file(root_ + "/host/config/rgy_svr.conf", "master");
    write_file(root_ + "/host/config/rgy_hosts.conf", std::string(host) + "\n\n");
    write_file(root_ + "/host/priv/.keep", "");
    setenv("VELIA_ROOT", root_.c_str(), 1);
    setenv("VELIA_HOSTNAME", host, 1);
    int ready[2];
    if (pipe(ready) != 0)
        give_up("pipe");
    daemon_ = fork();
    if (daemon_ == 0) {
        close(ready[0]);
        run_daemon(daemon, config, ready[1]);
    }
    close(ready[1]);
    char answer = '\0';
    if (read(ready[0], &answer, 1) != 1 || answer != 'R') {
        fprintf(stderr, "the daemon did not come up\n");
        exit(1);
    }
    close(ready[0]);
}

Site::~Site() {
    kill(daemon_, SIGTERM);
    waitpid(daemon_, nullptr, 0);
    std::filesystem::remove_all(root_);
}

} // namespace bench
