// What a peer asks of the daemon's scheduler, at its door: the first byte chooses the procedure and who calls, the rest
// is what he sends for it. Every call is answered exactly once, with its own transaction number. There are no tasks, so
// that no run becomes a process; jobs stay from one call to the next, up to a few.
#include <fuzz/harness.h>

#include <array>
#include <vector>

#include <server/rights/gate.h>
#include <server/rpc/dispatcher.h>
#include <server/scheduler/procedures.h>

using namespace velia::server;

namespace {

#define NUMBER_OF(NUMBER, CONSTANT, NAME, REQUEST, REPLY, RUNS, OVER) uint32_t{NUMBER},
constexpr std::array procedures = {RVZD_SCHEDULER_PROCEDURES(NUMBER_OF) RVZD_RUN_PROCEDURES(NUMBER_OF)
                                       RVZD_SET_PROCEDURES(NUMBER_OF)};
#undef NUMBER_OF

constexpr uint32_t transaction = 0x5eed;
constexpr size_t jobs_kept = 32;

// Who calls: an administrator, a user of this host, one from another host.
Caller caller(unsigned kind) {
    Caller made;
    made.transport = RVZD_PROTOCOL_TCP;
    made.peer.ipv4.sin_family = made.local.ipv4.sin_family = AF_INET;
    made.peer.ipv4.sin_addr.s_addr = htonl(kind == 2 ? 0x0a000001 : INADDR_LOOPBACK);
    if (kind != 2)
        made.known = KnownCaller{500, kind == 0 ? 0U : 1234U, kind == 0 ? 0U : 1234U};
    return made;
}

class Door {
public:
    Door()
        : scheduler_(start_loop(loop_)), procedures_(scheduler_, gate_),
          dispatcher_(RVZD_PROGRAM, RVZD_VERSION, gate_, procedures_.rows()) {
        root_.write("host/priv/.here", "");
        std::filesystem::permissions(std::string(getenv("VELIA_ROOT")) + "/host/priv",
                                     std::filesystem::perms::owner_all);
        scheduler_.open();
        FUZZ_REQUIRE(scheduler_.is_open());
    }

    void call(uint32_t procedure, const Caller &from, Bytes arguments) {
        CallHeader header = read_call_header(head_of(procedure));
        header.arguments = arguments;
        int answers = 0;
        dispatcher_.dispatch(header, from, [&](const MessageBytes &reply) {
            uint32_t xid = 0;
            uint32_t direction = 0;
            ByteReader reader(reply);
            FUZZ_REQUIRE(reader.word(xid) && reader.word(direction));
            FUZZ_REQUIRE(xid == transaction && direction == REPLY);
            ++answers;
        });
        while (answers == 0)
            uv_run(&loop_, UV_RUN_ONCE);
        FUZZ_REQUIRE(answers == 1);
        keep_few();
    }

private:
    static uv_loop_t *start_loop(uv_loop_t &loop) {
        FUZZ_REQUIRE(uv_loop_init(&loop) == 0);
        return &loop;
    }
    static const MessageBytes &head_of(uint32_t procedure) {
        static MessageBytes head;
        head.clear();
        for (const uint32_t word :
             {transaction, 0U, 2U, uint32_t{RVZD_PROGRAM}, uint32_t{RVZD_VERSION}, procedure, 0U, 0U, 0U, 0U})
            for (const int shift : {24, 16, 8, 0})
                head.push_back(static_cast<unsigned char>(word >> shift));
        return head;
    }
    void keep_few() {
        auto &jobs = scheduler_.jobs();
        if (jobs.all().size() <= jobs_kept)
            return;
        const auto id = jobs.all().begin()->first;
        bool is_done = false;
        scheduler_.ask(
            {}, [id](JobStore &store) { store.remove(id, {}); }, [&](tbs_status_t) { is_done = true; });
        while (!is_done)
            uv_run(&loop_, UV_RUN_ONCE);
        if (const Job *job = jobs.find(id))
            scheduler_.remove(*job);
    }

    fuzz::Root root_;
    uv_loop_t loop_;
    Gate gate_{[](int32_t, const Caller &) { return false; }};
    Scheduler scheduler_;
    SchedulerProcedures procedures_;
    Dispatcher dispatcher_;
};

// One alone where FUZZ_PROCEDURE says its number.
uint32_t procedure_of(uint8_t choice) {
    static const char *const alone = getenv("FUZZ_PROCEDURE");
    return alone != nullptr ? static_cast<uint32_t>(strtoul(alone, nullptr, 10))
                            : procedures[choice % procedures.size()];
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fuzz::Messages messages;
    static auto *door = new Door; // as long as the process
    if (size == 0)
        return 0;
    door->call(procedure_of(data[0]), caller(data[0] / procedures.size() % 3), Bytes(data + 1, size - 1));
    return 0;
}
