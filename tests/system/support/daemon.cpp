#include <tests/system/support/daemon.h>

#include <array>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace velia::system_test {

namespace {

constexpr int ready_deadline_ms = 20000;
constexpr const char *start_words = "' as pid ";

bool reads_ready(int fd) {
    std::string text;
    std::array<char, 64> piece;
    pollfd readable = {fd, POLLIN, 0};
    while (poll(&readable, 1, ready_deadline_ms) > 0) {
        const ssize_t count = read(fd, piece.data(), piece.size());
        if (count <= 0)
            break;
        text.append(piece.data(), static_cast<size_t>(count));
    }
    return text == "READY=1\n";
}

} // namespace

std::vector<std::string> daemon_words(const Site &site, const std::vector<std::string> &arguments) {
    std::vector<std::string> words = {RVZD_SERVER, "-f", site.path("rvzd_server.conf")};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
}

Daemon::Daemon(const Site &site, std::vector<std::string> arguments, Child::Options options) : site_(site) {
    static int number;
    output_name_ = "daemon-" + std::to_string(++number) + ".out";
    options.output_file = site.path(output_name_);
    std::array<int, 2> ends = {};
    if (pipe2(ends.data(), O_CLOEXEC) != 0)
        return;
    options.inherited_fds.push_back(ends[1]);
    arguments.insert(arguments.begin(), {"--foreground", "--ready-fd", std::to_string(ends[1])});
    child_ = std::make_unique<Child>(daemon_words(site, arguments), options);
    close(ends[1]);
    is_ready_ = reads_ready(ends[0]);
    close(ends[0]);
}

std::string Daemon::output() const {
    return site_.read(output_name_);
}

size_t Daemon::count(const std::string &text) const {
    const auto all = output();
    size_t found = 0;
    for (auto at = all.find(text); at != std::string::npos; at = all.find(text, at + 1))
        ++found;
    return found;
}

bool Daemon::says(const std::string &text, double deadline_s) const {
    return eventually([&] { return count(text) > 0; }, deadline_s);
}

std::vector<pid_t> Daemon::started(size_t awaited) const {
    eventually([&] { return count(start_words) >= awaited; });
    const auto all = output();
    std::vector<pid_t> pids;
    for (auto at = all.find(start_words); at != std::string::npos; at = all.find(start_words, at + 1))
        pids.push_back(std::stoi(all.substr(at + std::string(start_words).size())));
    return pids;
}

} // namespace velia::system_test
