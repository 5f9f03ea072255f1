// What clients of the library do, in few words.
#pragma once

#include <optional>
#include <string>

#include <veliaxdr/rvzd_handle.h>
#include <veliaxdr/rvzd_lookup.h>

namespace velia::system_test {

// A handle that goes back at the end.
class Handle {
public:
    explicit Handle(const char *host = "alpha", uint32_t protocol = RVZD_PROTOCOL_UDP, uint32_t prim = 1);
    ~Handle() { rvzd_free_handle(handle_); }
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;

    tbs_status_t status() const { return status_; }
    rvzd_handle_t *get() const { return handle_; }

private:
    rvzd_handle_t *handle_ = nullptr;
    tbs_status_t status_;
};

rvzd_rpc_trait_t trait_of(uint32_t program, rvzd_protocol_in_t transport);
tbs_uuid_t uuid_of(uint8_t seed);

struct Found {
    tbs_status_t status;
    rvzd_server_addr_t address;
};

Found find(const Handle &handle, uint32_t program, rvzd_protocol_in_t transport = RVZD_PROTOCOL_UDP, uint8_t uuid = 0,
           const char *path = "");

// Looks the server up, connects and calls procedures 0 and 1; the echo, or nothing and the status in *status.
std::optional<std::string> echo(const char *host, uint32_t program, rvzd_protocol_in_t transport,
                                const std::string &text, tbs_status_t *status = nullptr);

} // namespace velia::system_test
