// Callers of a daemon that choose their road, their credentials and their user, which clients of the library do not.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include <sys/types.h>

#include <tests/system/support/raw.h>
#include <veliaxdr/rvzd_procedure_rows.hpp>

namespace velia::system_test {

enum class SpeaksOver { HOST, UDP, TCP };
enum class Claims { NOTHING, NOBODY, ROOT };

// What runs as another user, in a process of its own; what it gives back comes from there. Only root can be others.
std::string told_as(uid_t user, const std::function<std::string()> &work);

class Speaker {
public:
    // Over IP from the given address of loopback, at a port of the system's choice if none is given.
    Speaker(const Site &site, SpeaksOver road, Claims claims, const std::string &from = "127.0.0.1", uint16_t port = 0);
    ~Speaker();
    Speaker(const Speaker &) = delete;
    Speaker &operator=(const Speaker &) = delete;

    bool is_connected() const { return fd_ >= 0; }
    int fd() const { return fd_; }

    // The bytes of a call as this road carries them.
    template <class Request, class Reply>
    Bytes call(const Procedure<Request, Reply> &procedure, Request request) const {
        Bytes arguments(arguments_bytes_max);
        XDR stream;
        xdrmem_create(&stream, reinterpret_cast<char *>(arguments.data()), arguments_bytes_max, XDR_ENCODE);
        if (!procedure.xdr_request(&stream, &request))
            return {};
        arguments.resize(XDR_GETPOS(&stream));
        return message(procedure.number, arguments);
    }

    bool send(const Bytes &bytes) const;

    // The status in the answer, -1 for none. Where the record has one of its own, that.
    template <class Request, class Reply>
    tbs_status_t ask(const Procedure<Request, Reply> &procedure, const Request &request) const {
        const auto results = send(call(procedure, request)) ? receive_results() : std::nullopt;
        if (!results)
            return -1;
        XDR stream;
        xdrmem_create(&stream, const_cast<char *>(reinterpret_cast<const char *>(results->data())),
                      static_cast<u_int>(results->size()), XDR_DECODE);
        Reply reply = {};
        tbs_status_t status = -1;
        if (procedure.xdr_reply(&stream, &reply)) {
            if constexpr (requires { reply.header; })
                status = reply.header.status;
            else
                status = reply.status;
            if constexpr (requires { reply.toggle.status; })
                status = reply.toggle.status;
        }
        xdr_free(procedure.reply_routine(), &reply);
        return status;
    }

private:
    static constexpr u_int arguments_bytes_max = 4096;

    Bytes message(uint32_t procedure, const Bytes &arguments) const;
    std::optional<Bytes> receive_results() const;

    SpeaksOver road_;
    Claims claims_;
    int fd_;
};

} // namespace velia::system_test
