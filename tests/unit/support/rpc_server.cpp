#include "rpc_server.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <arpa/inet.h>
#include <poll.h>
#include <rpc/rpc_msg.h>
#include <unistd.h>

#include <common/local_road.h>

namespace {

constexpr size_t record_size_max = 65536;
constexpr uint32_t last_fragment = 0x80000000;

void must(bool holds) {
    if (!holds)
        abort();
}

bool receive_all(int connection, void *bytes, size_t size) {
    auto *at = static_cast<char *>(bytes);
    while (size > 0) {
        const ssize_t taken = recv(connection, at, size, 0);
        if (taken <= 0)
            return false;
        at += taken;
        size -= static_cast<size_t>(taken);
    }
    return true;
}

std::string accepted_reply_header(uint32_t xid) {
    char bytes[64];
    XDR stream;
    xdrmem_create(&stream, bytes, sizeof bytes, XDR_ENCODE);
    uint32_t words[] = {xid, REPLY, MSG_ACCEPTED, AUTH_NONE, 0, SUCCESS};
    for (uint32_t &word : words)
        must(xdr_u_int(&stream, &word));
    return {bytes, xdr_getpos(&stream)};
}

} // namespace

RpcServer::RpcServer(int family, int type, Answer answer, const char *ipv4_address)
    : type_(type), answer_(std::move(answer)) {
    address_.base.sa_family = static_cast<sa_family_t>(family);
    if (family == AF_INET)
        must(inet_pton(AF_INET, ipv4_address, &address_.ipv4.sin_addr) == 1);
    else
        address_.ipv6.sin6_addr = in6addr_loopback;
    socket_ = socket(family, type | SOCK_CLOEXEC, 0);
    socklen_t length = sysutl_sockaddr_size(&address_.base);
    must(bind(socket_, &address_.base, length) == 0);
    must(getsockname(socket_, &address_.base, &length) == 0);
    begin();
}

RpcServer::RpcServer(const std::string &root, const ks_sockaddr_storage_t &address, Answer answer)
    : address_(address), type_(SOCK_STREAM), answer_(std::move(answer)) {
    const std::string directory = root + "/" + velia::local_road_directory;
    char name[velia::local_road_name_size];
    must(velia::local_road_name(&address.base, name));
    std::filesystem::create_directories(directory);
    std::filesystem::remove(directory + "/" + name);
    const velia::LocalRoadAddress place(directory.c_str(), name);
    socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    must(bind(socket_, place.get(), place.length()) == 0);
    begin();
}

void RpcServer::begin() {
    must(type_ == SOCK_DGRAM || listen(socket_, 16) == 0);
    must(pipe(orders_) == 0);
    thread_ = std::thread([this] { serve(); });
}

RpcServer::~RpcServer() {
    {
        const std::lock_guard guard(lock_);
        end_is_wanted_ = true;
    }
    must(write(orders_[1], "e", 1) == 1);
    thread_.join();
    for (const int connection : open_)
        close(connection);
    close(socket_);
    close(orders_[0]);
    close(orders_[1]);
}

uint16_t RpcServer::port() const {
    uint16_t port = 0;
    sysutl_sockaddr_get_port(&address_.base, &port);
    return ntohs(port);
}

void RpcServer::close_connections() {
    std::unique_lock guard(lock_);
    close_is_wanted_ = true;
    must(write(orders_[1], "c", 1) == 1);
    obeyed_.wait(guard, [this] { return !close_is_wanted_; });
}

void RpcServer::serve() {
    for (;;) {
        std::vector<pollfd> wanted = {{orders_[0], POLLIN, 0}, {socket_, POLLIN, 0}};
        for (const int connection : open_)
            wanted.push_back({connection, POLLIN, 0});
        poll(wanted.data(), wanted.size(), -1);
        if (wanted[0].revents != 0)
            obey();
        const std::unique_lock guard(lock_);
        if (end_is_wanted_)
            return;
        if (wanted[1].revents != 0)
            type_ == SOCK_DGRAM ? take_datagram() : take_connection();
        for (size_t i = 2; i < wanted.size() && wanted[0].revents == 0; ++i) {
            if (wanted[i].revents != 0 && !take_record(wanted[i].fd)) {
                close(wanted[i].fd);
                std::erase(open_, wanted[i].fd);
            }
        }
    }
}

void RpcServer::obey() {
    char order;
    must(read(orders_[0], &order, 1) == 1);
    const std::lock_guard guard(lock_);
    if (close_is_wanted_) {
        for (const int connection : open_)
            close(connection);
        open_.clear();
    }
    close_is_wanted_ = false;
    obeyed_.notify_all();
}

void RpcServer::take_datagram() {
    char bytes[record_size_max];
    ks_sockaddr_storage_t caller;
    socklen_t length = sizeof caller;
    const ssize_t taken = recvfrom(socket_, bytes, sizeof bytes, MSG_DONTWAIT, &caller.base, &length);
    if (taken < 0)
        return;
    const std::string reply = reply_to({bytes, static_cast<size_t>(taken)});
    if (!reply.empty())
        sendto(socket_, reply.data(), reply.size(), 0, &caller.base, length);
}

void RpcServer::take_connection() {
    const int connection = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0)
        return;
    ++connections_;
    open_.push_back(connection);
}

bool RpcServer::take_record(int connection) {
    uint32_t mark = 0;
    if (!receive_all(connection, &mark, sizeof mark))
        return false;
    std::string request((ntohl(mark) & ~last_fragment) % record_size_max, '\0');
    if (!receive_all(connection, request.data(), request.size()))
        return false;
    const std::string reply = reply_to(request);
    if (reply.empty())
        return true;
    mark = htonl(last_fragment | static_cast<uint32_t>(reply.size()));
    const std::string record = std::string(reinterpret_cast<char *>(&mark), sizeof mark) + reply;
    return send(connection, record.data(), record.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(record.size());
}

std::string RpcServer::reply_to(const std::string &request) {
    ++calls_;
    std::string bytes = request;
    XDR arguments;
    xdrmem_create(&arguments, bytes.data(), static_cast<unsigned>(bytes.size()), XDR_DECODE);
    rpc_msg call = {};
    char credentials[MAX_AUTH_BYTES];
    char verifier[MAX_AUTH_BYTES];
    call.rm_call.cb_cred.oa_base = credentials;
    call.rm_call.cb_verf.oa_base = verifier;
    if (!xdr_callmsg(&arguments, &call))
        return {};
    char result_bytes[record_size_max];
    XDR results;
    xdrmem_create(&results, result_bytes, sizeof result_bytes, XDR_ENCODE);
    if (!answer_(call, &arguments, &results))
        return {};
    return accepted_reply_header(call.rm_xid) + std::string(result_bytes, xdr_getpos(&results));
}

bool RpcServer::echo(const rpc_msg &, XDR *arguments, XDR *results) {
    unsigned number = 0;
    return xdr_u_int(arguments, &number) && xdr_u_int(results, &number);
}

clnt_stat call_echo(CLIENT *client, uint32_t number, uint32_t *reply, timeval timeout) {
    return clnt_call(client, 1, reinterpret_cast<xdrproc_t>(xdr_u_int), reinterpret_cast<char *>(&number),
                     reinterpret_cast<xdrproc_t>(xdr_u_int), reinterpret_cast<char *>(reply), timeout);
}
