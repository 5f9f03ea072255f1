// One page over HTTP, for whoever collects figures. Anybody who reaches it may ask, and so each connection has a bound:
// how many there are, how much it sends, how long it takes. When there is no place, the oldest goes.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include <server/loop/handles.h>
#include <server/loop/unique_fd.h>

namespace velia::server {

struct HttpLimits {
    size_t connections_max = 16;
    int64_t connection_ms = 5000; // from its beginning to its end
};

class HttpEndpoint {
public:
    // On a socket that listens. `make_page` is asked for each answer.
    HttpEndpoint(uv_loop_t *loop, UniqueFd fd, std::function<std::string()> make_page, const HttpLimits &limits = {});
    ~HttpEndpoint();
    HttpEndpoint(const HttpEndpoint &) = delete;
    HttpEndpoint &operator=(const HttpEndpoint &) = delete;

    size_t connections() const { return connections_.size(); }

private:
    class Connection;

    void accept_some();
    void sweep();

    uv_loop_t *loop_;
    UniqueFd fd_;
    std::function<std::string()> make_page_;
    HttpLimits limits_;
    std::map<uint64_t, std::shared_ptr<Connection>> connections_; // the oldest first
    uint64_t next_number_ = 0;
    PollHandle poll_;
    TimerHandle sweep_timer_;
};

} // namespace velia::server
