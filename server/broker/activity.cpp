#include <server/broker/activity.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include <unistd.h>

namespace velia::server {

namespace {

constexpr int64_t ms_per_s = 1000;

// The hexadecimal number behind the last colon of a word, as in "0100007F:9DB3" or "00000000:000002C0".
uint64_t number_behind_colon(const std::string &word) {
    const auto colon = word.rfind(':');
    return colon != std::string::npos ? strtoull(word.c_str() + colon + 1, nullptr, 16) : 0;
}

bool has_unread_in(const char *table_name, uint16_t port) {
    std::ifstream table(table_name);
    return has_unread(table, port);
}

} // namespace

// Columns: number, local address, remote address, state, bytes to send and bytes (connections of a listener) to take.
bool has_unread(std::istream &table, uint16_t port) {
    std::string line;
    std::getline(table, line); // the heading
    while (std::getline(table, line)) {
        std::istringstream words(line);
        std::string number, local, remote, state, queues;
        if (words >> number >> local >> remote >> state >> queues && number_behind_colon(local) == port &&
            number_behind_colon(queues) > 0)
            return true;
    }
    return false;
}

bool has_unread(const std::vector<ServedPort> &ports) {
    return std::any_of(ports.begin(), ports.end(), [](const ServedPort &served) {
        const bool is_udp = served.protocol == RVZD_PROTOCOL_UDP;
        return has_unread_in(is_udp ? "/proc/net/udp" : "/proc/net/tcp", served.port) ||
               has_unread_in(is_udp ? "/proc/net/udp6" : "/proc/net/tcp6", served.port);
    });
}

int64_t processor_ms(int32_t pid) {
    constexpr int words_before_times = 11; // behind the name, which may hold anything
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(file, line);
    const auto name_end = line.rfind(')');
    if (name_end == std::string::npos)
        return 0;
    std::istringstream words(line.substr(name_end + 1));
    std::string word;
    for (int i = 0; i < words_before_times; ++i)
        words >> word;
    int64_t user_ticks = 0;
    int64_t system_ticks = 0;
    words >> user_ticks >> system_ticks;
    return (user_ticks + system_ticks) * ms_per_s / sysconf(_SC_CLK_TCK);
}

} // namespace velia::server
