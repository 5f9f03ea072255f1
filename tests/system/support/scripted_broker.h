// A broker that gives each procedure the reply it was told to give, and does to those of one procedure what a test
// wants.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include <tests/hostile/datagram_peer.h>
#include <tests/hostile/stream_peer.h>

namespace velia::system_test {

// What is done to the replies to one procedure.
struct Spoiling {
    enum class Kind {
        none,
        cut,
        word,
        unanswered, // there is none
        hung_up,    // nor a connection any longer
    } kind = Kind::none;
    size_t at = 0; // where the reply is cut, or the number of its word
    uint32_t value = 0;
};

class ScriptedBroker {
public:
    using Bytes = hostile::Bytes;
    static constexpr size_t word_bytes = 4;
    static constexpr size_t reply_header_bytes = 24;

    // Over UDP or TCP, with what stands behind the header of each procedure's reply; of others nothing does.
    ScriptedBroker(uint32_t transport, std::map<uint32_t, Bytes> results);
    ScriptedBroker(const ScriptedBroker &) = delete;
    ScriptedBroker &operator=(const ScriptedBroker &) = delete;

    uint16_t port() const;

    // From now on; counts the requests of that procedure.
    void spoil(uint32_t procedure, const Spoiling &spoiling);
    size_t asked();

    void answer(uint32_t procedure, Bytes results);

    size_t reply_bytes(uint32_t procedure) const { return reply_header_bytes + results_.at(procedure).size(); }

    // The last request of a procedure, header and all; empty where none has come.
    Bytes request(uint32_t procedure);

private:
    std::optional<Bytes> reply_to(const Bytes &request);
    void serve(hostile::StreamPeer::Connection &connection);
    bool hangs_up();

    std::map<uint32_t, Bytes> results_; // by procedure, as are the requests
    std::map<uint32_t, Bytes> requests_;
    std::mutex lock_;
    uint32_t procedure_ = 0;
    Spoiling spoiling_;
    size_t asked_ = 0;
    std::unique_ptr<hostile::DatagramPeer> datagrams_;
    std::unique_ptr<hostile::StreamPeer> streams_;
};

} // namespace velia::system_test
