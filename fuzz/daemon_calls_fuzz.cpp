// What a peer sends to the daemon over TCP: a byte of circumstances, then a stream of records. Every call is answered
// exactly once, with its own transaction number, at the latest when the servers it waits for have died.
#include <fuzz/harness.h>

#include <map>

#include <server/broker/procedures.h>
#include <server/loop/handles.h>
#include <server/rights/gate.h>
#include <server/rpc/record_assembler.h>

using namespace velia::server;

namespace {

enum Circumstance : uint8_t { FROM_ELSEWHERE = 1, OLDER_PROTOCOL = 2, CANNOT_LAUNCH = 4 };

class FuzzLauncher : public Launcher {
public:
    explicit FuzzLauncher(bool can_launch) : can_launch_(can_launch) {}
    LaunchResult launch(const Service &) override {
        return can_launch_ ? LaunchResult{next_pid_++, 0, {}} : LaunchResult{0, 12, "no more"};
    }
    void cut_lifeline(int32_t) override {}
    int kill_now(int32_t) override { return 0; }
    bool exists(int32_t pid) override { return pid % 2 == 0; }
    bool waits_for_calls(int32_t /*pid*/, const std::vector<ServedPort> & /*ports*/, int64_t age_ms) override {
        return age_ms % 2 == 0;
    }

private:
    bool can_launch_;
    int32_t next_pid_ = 100;
};

std::vector<Service> services() {
    Service shared;
    shared.udp = shared.tcp = true;
    shared.program = 390600;
    shared.version = 1;
    shared.path = "/bin/shared";
    Service dedicated = shared;
    dedicated.kind = ServerKind::dedicated;
    dedicated.program = 390601;
    dedicated.control.processes_max = 3;
    dedicated.path = "/bin/dedicated";
    return {shared, dedicated};
}

Caller caller(bool from_elsewhere) {
    Caller made;
    made.transport = RVZD_PROTOCOL_TCP;
    made.peer.ipv4.sin_family = made.local.ipv4.sin_family = AF_INET;
    made.peer.ipv4.sin_addr.s_addr = htonl(from_elsewhere ? 0x0a000001 : INADDR_LOOPBACK);
    made.local.ipv4.sin_addr.s_addr = htonl(from_elsewhere ? 0x0a000002 : INADDR_LOOPBACK);
    return made;
}

// The calls so far, and how often each was answered.
class Calls {
public:
    void dispatch(const Dispatcher &dispatcher, const MessageBytes &message, const Caller &from) {
        const CallHeader header = read_call_header(message);
        const size_t number = answers_.size();
        answers_.push_back(header.fault == CallFault::no_call ? 1 : 0);
        dispatcher.dispatch(header, from, [this, number, xid = header.xid](const MessageBytes &reply) {
            uint32_t reply_xid = 0;
            uint32_t direction = 0;
            ByteReader reader(reply);
            FUZZ_REQUIRE(reader.word(reply_xid) && reader.word(direction));
            FUZZ_REQUIRE(reply_xid == xid && direction == REPLY);
            FUZZ_REQUIRE(++answers_[number] == 1);
        });
    }
    void require_all_answered() const {
        for (const int count : answers_)
            FUZZ_REQUIRE(count == 1);
    }

private:
    std::vector<int> answers_;
};

void end_all_servers(ServerTable &table) {
    const Moment now = monotonic_ms();
    table.run_due(now + 1'000'000);
    table.shut_down(now);
    while (table.has_children())
        for (const auto &[pid, process] : std::map(table.processes()))
            table.process_exited(pid, {0, 9}, now);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fuzz::Root root;
    static fuzz::Messages messages;
    if (size == 0)
        return 0;
    const uint8_t circumstances = data[0];
    FuzzLauncher launcher((circumstances & CANNOT_LAUNCH) == 0);
    ServerTable table(launcher);
    table.configure(services(), monotonic_ms());
    const uint32_t protocol = (circumstances & OLDER_PROTOCOL) != 0 ? RVZD_PROTOCOL_V70 : RVZD_PROTOCOL_CURRENT;
    BrokerProcedures procedures(table, [] {});
    const Caller from = caller((circumstances & FROM_ELSEWHERE) != 0);
    const Gate gate([&](int32_t, const Caller &) { return (circumstances & FROM_ELSEWHERE) == 0; });
    const Dispatcher dispatcher(RVZD_PROGRAM, RVZD_VERSION, gate, procedures.rows(protocol));
    Calls calls;
    RecordAssembler assembler;
    Bytes stream(data + 1, size - 1);
    while (!stream.empty() && assembler.feed(stream) == RecordAssembler::State::has_record)
        calls.dispatch(dispatcher, assembler.take(), from);
    for (const auto &[pid, process] : table.processes())
        FUZZ_REQUIRE(process.registrations.size() <= REGISTRATIONS_MAX);
    end_all_servers(table);
    calls.require_all_answered();
    return 0;
}
