// Well-known servers to compare with, each a silent child of this process in the same place as the daemon. They come
// from the folder into which `./dev bench` unpacks them, or else from the system.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

namespace bench {

class OtherServer {
public:
    explicit OtherServer(std::vector<std::string> words);
    ~OtherServer();
    OtherServer(const OtherServer &) = delete;
    OtherServer &operator=(const OtherServer &) = delete;

private:
    pid_t child_;
};

// A key-value server that everybody knows, spoken to in its own plain protocol.
class KeyValueServer {
public:
    static std::unique_ptr<KeyValueServer> start(); // null if there is none, with words
    ~KeyValueServer();
    KeyValueServer(const KeyValueServer &) = delete;
    KeyValueServer &operator=(const KeyValueServer &) = delete;

    bool get() const;

private:
    explicit KeyValueServer(const std::string &program);
    bool comes_up();
    bool connect_to_it();
    ssize_t ask(const std::string &request) const;

    uint16_t port_;
    OtherServer server_;
    int fd_ = -1;
};

// A coordination service that keeps all in memory, through its own C client.
class Coordinator {
public:
    static std::unique_ptr<Coordinator> start(const std::string &folder); // null if there is none, with words
    ~Coordinator();
    Coordinator(const Coordinator &) = delete;
    Coordinator &operator=(const Coordinator &) = delete;

    bool get() const;

private:
    explicit Coordinator(const std::string &folder);
    bool comes_up();

    std::string port_;
    OtherServer server_;
    void *handle_ = nullptr;
};

} // namespace bench
