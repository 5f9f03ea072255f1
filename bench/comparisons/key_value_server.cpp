// Redis, and what any other server needs to be started.
#include <bench/comparisons/other_servers.h>

#include <bench/support/placement.h>
#include <bench/support/site.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {

namespace {

std::string find_program() {
    for (const char *path : {BENCH_COMPARISONS "/usr/bin/redis-server", "/usr/bin/redis-server"})
        if (access(path, X_OK) == 0)
            return path;
    return "";
}

} // namespace

OtherServer::OtherServer(std::vector<std::string> words) : child_(fork()) {
    if (child_ != 0)
        return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    pin(End::server);
    setenv("LD_LIBRARY_PATH", BENCH_COMPARISON_LIBRARIES, 1);
    const int null = open("/dev/null", O_RDWR);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    std::vector<char *> arguments;
    for (auto &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    execvp(arguments.front(), arguments.data());
    _exit(1);
}

OtherServer::~OtherServer() {
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
}

std::unique_ptr<KeyValueServer> KeyValueServer::start() {
    const std::string program = find_program();
    if (program.empty()) {
        printf("There is no redis-server here, so there is no comparison with it.\n");
        return nullptr;
    }
    std::unique_ptr<KeyValueServer> server(new KeyValueServer(program));
    if (server->comes_up())
        return server;
    printf("%s does not come up, so there is no comparison with it.\n", program.c_str());
    return nullptr;
}

KeyValueServer::KeyValueServer(const std::string &program)
    : port_(free_port()),
      server_({program, "--port", std::to_string(port_), "--bind", "127.0.0.1", "--save", "", "--appendonly", "no"}) {}

KeyValueServer::~KeyValueServer() {
    if (fd_ >= 0)
        close(fd_);
}

bool KeyValueServer::comes_up() {
    return connect_to_it() && ask("*3\r\n$3\r\nSET\r\n$8\r\nentry777\r\n$54\r\n-name=entry777;-hostname=build7;"
                                  "-region=east;-owner=someb\r\n") > 0;
}

bool KeyValueServer::connect_to_it() {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port_);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int tries = 0; tries < 500; ++tries) {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int on = 1;
        if (connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0)
            return setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0;
        close(fd_);
        usleep(10000);
    }
    fd_ = -1;
    return false;
}

ssize_t KeyValueServer::ask(const std::string &request) const {
    char reply[256];
    if (send(fd_, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size()))
        return -1;
    return recv(fd_, reply, sizeof reply, 0);
}

bool KeyValueServer::get() const {
    return ask("*2\r\n$3\r\nGET\r\n$8\r\nentry777\r\n") > 50;
}

} // namespace bench
