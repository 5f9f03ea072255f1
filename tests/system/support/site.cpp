#include <tests/system/support/site.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <netinet/in.h>
#include <random>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace velia::system_test {

namespace {

// Below the range from which the system takes ports for clients.
constexpr int port_least = 20000;
constexpr int port_most = 32000;

bool can_bind(int type, uint16_t port) {
    const int fd = socket(AF_INET6, type | SOCK_CLOEXEC, 0);
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    const bool bound = bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    close(fd);
    return bound;
}

uint16_t free_port() {
    std::mt19937 random(static_cast<unsigned>(getpid()));
    std::uniform_int_distribution<int> ports(port_least, port_most);
    for (int tries = 0; tries < 1000; ++tries) {
        const auto port = static_cast<uint16_t>(ports(random));
        if (can_bind(SOCK_DGRAM, port) && can_bind(SOCK_STREAM, port))
            return port;
    }
    throw std::runtime_error("no port is free");
}

} // namespace

Site::Site() : port_(free_port()) {
    std::string name = (std::filesystem::temp_directory_path() / "velia-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("no directory for the site");
    root_ = name;
    for (const char *directory : {"config/services", "host/config", "host/priv", "host/data", "log"})
        std::filesystem::create_directories(root_ / directory);
    write("config/services.conf", "rvzd " + std::to_string(port_) + "\n");
    write("config/hosts.conf", "alpha 127.0.0.1\nbeta 127.0.0.2\nsix ::1\nboth ::1 127.0.0.1\naway 127.0.0.9\n");
    setenv("VELIA_ROOT", root_.c_str(), 1);
    setenv("VELIA_HOSTNAME", "alpha", 1);
    setenv("XDG_CONFIG_HOME", path("no-user").c_str(), 1); // not that of who runs the tests
}

Site::~Site() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
}

std::string Site::write(const std::string &name, const std::string &text) const {
    std::ofstream(root_ / name) << text;
    return path(name);
}

std::string Site::read(const std::string &name) const {
    std::ostringstream text;
    text << std::ifstream(root_ / name).rdbuf();
    return text.str();
}

void Site::give_to(uid_t user) const {
    std::filesystem::permissions(root_, std::filesystem::perms(0755));
    for (const auto &entry : std::filesystem::recursive_directory_iterator(root_))
        if (lchown(entry.path().c_str(), user, user) != 0)
            throw std::runtime_error("no right to give " + entry.path().string() + " away");
    if (chown(root_.c_str(), user, user) != 0)
        throw std::runtime_error("no right to give the site away");
}

std::string sample_line(uint32_t program, const std::string &kind, const std::string &control,
                        const std::string &arguments, const std::string &transports) {
    return transports + " " + kind + " " + std::to_string(program) + " 1 " + control + " - - " + SAMPLE_SERVER +
           " --prog " + std::to_string(program) + " " + arguments + "\n";
}

std::string script_line(uint32_t program, const std::string &kind, const std::string &control,
                        const std::string &script) {
    return "udp " + kind + " " + std::to_string(program) + " 1 " + control + " - - /bin/sh -c \"" + script + "\"\n";
}

bool eventually(const std::function<bool()> &condition, double deadline_s) {
    using namespace std::chrono;
    const auto deadline = steady_clock::now() + duration<double>(deadline_s);
    while (!condition()) {
        if (steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(milliseconds(5));
    }
    return true;
}

} // namespace velia::system_test
