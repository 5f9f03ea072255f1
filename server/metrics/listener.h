// The page of figures at the place that the configuration names; nowhere if it names none.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include <server/metrics/http_endpoint.h>

namespace velia::server {

class MetricsListener {
public:
    MetricsListener(uv_loop_t *loop, std::function<std::string()> make_page)
        : loop_(loop), make_page_(std::move(make_page)) {}
    ~MetricsListener() { close(); }
    MetricsListener(const MetricsListener &) = delete;
    MetricsListener &operator=(const MetricsListener &) = delete;

    // A place as the configuration has it, or empty. One that cannot be had is told, and tried again the next time.
    void serve_at(const std::string &place);
    void close();

private:
    uv_loop_t *loop_;
    std::function<std::string()> make_page_;
    std::string place_;
    std::string path_; // of a socket in the file system, which is removed in the end
    std::unique_ptr<HttpEndpoint> endpoint_;
};

} // namespace velia::server
