#include <bench/support/answering_peer.h>

#include <bench/support/check.h>
#include <bench/support/placement.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <arpa/inet.h>
#include <csignal>
#include <netinet/tcp.h>
#include <rpc/rpc.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <veliaxdr/rvzd_wire.h>

namespace bench {

namespace {

constexpr size_t mark_bytes = 4;
constexpr size_t reply_header_words = 6;
constexpr size_t procedure_word = 5;
constexpr uint32_t last_fragment = 0x80000000;

bool receive_all(int fd, char *bytes, size_t wanted) {
    for (size_t received = 0; received < wanted;) {
        const ssize_t count = recv(fd, bytes + received, wanted - received, 0);
        if (count <= 0)
            return false;
        received += static_cast<size_t>(count);
    }
    return true;
}

uint32_t word_at(const std::string &bytes, size_t index) {
    uint32_t word;
    memcpy(&word, bytes.data() + index * sizeof word, sizeof word);
    return ntohl(word);
}

// Mark, transaction, REPLY and a success, with the results behind it; the transaction is still to be written.
std::string as_record(const std::string &results) {
    uint32_t header[1 + reply_header_words] = {};
    header[0] = htonl(last_fragment | static_cast<uint32_t>(reply_header_words * 4 + results.size()));
    header[2] = htonl(REPLY);
    return std::string(reinterpret_cast<const char *>(header), sizeof header) + results;
}

void serve_connection(int fd, AnsweringPeer::Results &records) {
    std::string request;
    while (true) {
        request.resize(mark_bytes);
        if (!receive_all(fd, request.data(), mark_bytes))
            return;
        request.resize(word_at(request, 0) & ~last_fragment);
        if (!receive_all(fd, request.data(), request.size()))
            return;
        std::string &record = records[word_at(request, procedure_word)];
        memcpy(record.data() + mark_bytes, request.data(), sizeof(uint32_t));
        if (send(fd, record.data(), record.size(), MSG_NOSIGNAL) < 0)
            return;
    }
}

[[noreturn]] void serve(int server, AnsweringPeer::Results results) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    pin(End::server);
    for (auto &[procedure, bytes] : results)
        bytes = as_record(bytes);
    while (true) {
        const int fd = accept(server, nullptr, nullptr);
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        serve_connection(fd, results);
        close(fd);
    }
}

// A word nobody looks at, the status, and the version of the protocol.
std::string contact_results() {
    const uint32_t words[] = {0, 0, htonl(RVZD_PROTOCOL_CURRENT)};
    return {reinterpret_cast<const char *>(words), sizeof words};
}

std::string make_root(uint16_t port) {
    std::string root = (std::filesystem::temp_directory_path() / "velia-bench-XXXXXX").string();
    check(mkdtemp(root.data()) != nullptr, "mkdtemp");
    std::filesystem::create_directories(root + "/config");
    std::ofstream(root + "/config/services.conf") << "rvzd " << port << '\n';
    std::ofstream(root + "/config/hosts.conf") << AnsweringPeer::host << " 127.0.0.1\n";
    setenv("VELIA_ROOT", root.c_str(), 1);
    setenv("VELIA_HOSTNAME", AnsweringPeer::host, 1);
    return root;
}

} // namespace

AnsweringPeer::AnsweringPeer(Results results) {
    const int server = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    check(bind(server, reinterpret_cast<const sockaddr *>(&address), length) == 0 && listen(server, 4) == 0, "listen");
    check(getsockname(server, reinterpret_cast<sockaddr *>(&address), &length) == 0, "getsockname");
    root_ = make_root(ntohs(address.sin_port));
    results[RVZD_PROC_CONTACT] = contact_results();
    child_ = fork();
    if (child_ == 0)
        serve(server, std::move(results));
    close(server);
}

AnsweringPeer::~AnsweringPeer() {
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
    std::filesystem::remove_all(root_);
}

} // namespace bench
