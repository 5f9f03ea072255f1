#include <tests/system/support/scripted_broker.h>

#include <arpa/inet.h>

#include <support/sysutl.h>
#include <veliaxdr/rvzd_wire.h>

namespace velia::system_test {

using hostile::as_record;
using hostile::as_words;
using hostile::DatagramPeer;
using hostile::StreamPeer;
using hostile::transaction_of;
using hostile::word_of;

ScriptedBroker::ScriptedBroker(uint32_t transport, std::map<uint32_t, Bytes> results) : results_(std::move(results)) {
    if (transport == RVZD_PROTOCOL_UDP)
        datagrams_ = std::make_unique<DatagramPeer>(AF_INET, [this](const DatagramPeer::Call &call) {
            if (const auto reply = reply_to(call.request))
                call.send(*reply);
        });
    else
        streams_ =
            std::make_unique<StreamPeer>(AF_INET, [this](StreamPeer::Connection &connection) { serve(connection); });
}

void ScriptedBroker::serve(StreamPeer::Connection &connection) {
    while (const auto request = connection.request()) {
        if (const auto reply = reply_to(*request))
            connection.send(as_record(*reply));
        else if (hangs_up())
            return;
    }
}

uint16_t ScriptedBroker::port() const {
    uint16_t port = 0;
    sysutl_sockaddr_get_port(datagrams_ ? datagrams_->address() : streams_->address(), &port);
    return ntohs(port);
}

void ScriptedBroker::spoil(uint32_t procedure, const Spoiling &spoiling) {
    const std::lock_guard guard(lock_);
    procedure_ = procedure;
    spoiling_ = spoiling;
    asked_ = 0;
}

size_t ScriptedBroker::asked() {
    const std::lock_guard guard(lock_);
    return asked_;
}

bool ScriptedBroker::hangs_up() {
    const std::lock_guard guard(lock_);
    return spoiling_.kind == Spoiling::Kind::hung_up;
}

void ScriptedBroker::answer(uint32_t procedure, Bytes results) {
    const std::lock_guard guard(lock_);
    results_[procedure] = std::move(results);
}

ScriptedBroker::Bytes ScriptedBroker::request(uint32_t procedure) {
    const std::lock_guard guard(lock_);
    return requests_[procedure];
}

std::optional<ScriptedBroker::Bytes> ScriptedBroker::reply_to(const Bytes &request) {
    constexpr size_t procedure_word = 5;
    const std::lock_guard guard(lock_);
    const uint32_t procedure = word_of(request, procedure_word);
    requests_[procedure] = request;
    Bytes reply = as_words({transaction_of(request), 1, 0, 0, 0, 0});
    if (const auto results = results_.find(procedure); results != results_.end())
        reply += results->second;
    if (procedure != procedure_)
        return reply;
    ++asked_;
    switch (spoiling_.kind) {
    case Spoiling::Kind::none:
        break;
    case Spoiling::Kind::cut:
        reply.resize(spoiling_.at);
        break;
    case Spoiling::Kind::word:
        reply.replace(spoiling_.at * word_bytes, word_bytes, as_words({spoiling_.value}));
        break;
    case Spoiling::Kind::unanswered:
    case Spoiling::Kind::hung_up:
        return std::nullopt;
    }
    return reply;
}

} // namespace velia::system_test
