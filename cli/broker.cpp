// A broker within the time that the user gave: the library's own handle on it, with the limit of the thread.
#include <cli/broker.h>

#include <array>
#include <chrono>

#include <cli/messages.h>
#include <cli/waits.h>
#include <support/ks.h>
#include <veliaxdr/rvzd_socket.h>

namespace velia::cli {

Broker reach_broker(const std::string &host, uint32_t protocol, Duration timeout, As as) {
    begin_wait(timeout);
    rvzd_handle_t *handle = nullptr;
    const uint32_t prim = as == As::caller ? 1 : 0;
    const auto contact = [&] { return rvzd_get_handle_prim_proto(host.c_str(), protocol, prim, 0, &handle); };
    const tbs_status_t status = tell_failures_of(host, contact);
    if (status != TBS_ST_OK) {
        if (ks_deadline_left() == 0) // of which the library says nothing
            tell_failure(status, host, "Nothing came from host '%s' within %s seconds\n", host.c_str(),
                         text_of_duration(timeout).c_str());
        return {nullptr, rvzd_free_handle};
    }
    const timeval time = timeval_of(timeout);
    handle->tv_sec = time.tv_sec;
    handle->tv_usec = time.tv_usec;
    return {handle, rvzd_free_handle};
}

bool ping(CLIENT *client, Duration timeout, const char *failed_text, double &round_trip_ms) {
    const auto nothing = reinterpret_cast<xdrproc_t>(reinterpret_cast<void (*)()>(xdr_void));
    const auto start = std::chrono::steady_clock::now();
    if (clnt_call(client, NULLPROC, nothing, nullptr, nothing, nullptr, timeval_of(timeout)) != RPC_SUCCESS) {
        ks_clnt_perror(client, failed_text);
        return false;
    }
    const std::chrono::duration<double, std::milli> elapsed = std::chrono::steady_clock::now() - start;
    round_trip_ms = elapsed.count();
    return true;
}

std::string text_of_address(const ks_sockaddr_storage_t &address) {
    std::array<char, 96> text;
    return sysutl_sockaddr_to_str(&address.base, text.size(), text.data());
}

uint32_t protocol_of_name(const std::string &name) {
    return name == rvzd_protocol_names[RVZD_PROTOCOL_TCP] ? RVZD_PROTOCOL_TCP : RVZD_PROTOCOL_UDP;
}

} // namespace velia::cli
