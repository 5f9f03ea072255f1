// A relay of datagrams on loopback that loses some of them, in both directions.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <thread>

#include <netinet/in.h>

namespace velia::system_test {

class LossyRelay {
public:
    // Between `address` and the daemon's address, on the port of both; of a hundred datagrams `loss_percent` are lost.
    LossyRelay(const std::string &address, const std::string &daemon_address, uint16_t port, unsigned loss_percent);
    ~LossyRelay();
    LossyRelay(const LossyRelay &) = delete;
    LossyRelay &operator=(const LossyRelay &) = delete;

    uint64_t lost() const { return lost_; }

private:
    struct Client {
        sockaddr_in address;
        int fd; // towards the daemon
    };

    void run();
    bool is_lost();
    int fd_for(const sockaddr_in &client);
    void relay_requests();
    void relay_replies(const Client &client);

    sockaddr_in daemon_ = {};
    int fd_;
    int end_fd_;
    unsigned loss_percent_;
    std::mt19937 random_{42};
    std::map<uint16_t, Client> clients_; // by their ports
    std::atomic<uint64_t> lost_ = 0;
    std::thread thread_;
};

} // namespace velia::system_test
