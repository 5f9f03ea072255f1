// What it costs a daemon to count its calls by procedure, with medians and 99th percentiles: a call from its bytes to
// the bytes of its reply with and without it; and what a page of figures costs against such a call, since the thread
// that makes it serves nobody meanwhile.
#include <bench/support/check.h>
#include <bench/support/ratio.h>

#include <benchmark/benchmark.h>

#include <server/daemon/metrics.h>
#include <server/rpc/serve.h>

namespace {

using namespace velia::server;
namespace procedures = velia::procedures;
using bench::check;

constexpr size_t message_bytes_max = 1024;

struct AnyoneMay : Guard {
    bool permits(const Demand & /*demand*/, const Caller & /*caller*/) const override { return true; }
};

class Owner {
public:
    tbs_status_t state(const rvzd_registry_state_req_t & /*request*/, const Caller & /*caller*/,
                       Reply<rvzd_registry_state_reply_t> &reply) {
        reply.record.master = reply.arena.text("build7");
        return TBS_ST_OK;
    }
    std::vector<ServedProcedure> rows() { return {serve<procedures::registry_state, &Owner::state>(*this)}; }
};

MessageBytes call_of_state() {
    MessageBytes message(message_bytes_max);
    XDR stream;
    xdrmem_create(&stream, reinterpret_cast<char *>(message.data()), static_cast<u_int>(message.size()), XDR_ENCODE);
    rvzd_registry_state_req_t request = {};
    for (u_int word : {7u, 0u, 2u, uint32_t{RVZD_PROGRAM}, uint32_t{RVZD_VERSION}, procedures::registry_state.number,
                       0u, 0u, 0u, 0u})
        check(xdr_u_int(&stream, &word) != 0, "encoding a call");
    check(procedures::registry_state.xdr_request(&stream, &request) != 0, "encoding a request");
    message.resize(xdr_getpos(&stream));
    return message;
}

class Served {
public:
    explicit Served(bool is_counted) : dispatcher_(RVZD_PROGRAM, RVZD_VERSION, guard_, owner_.rows()) {
        if (is_counted)
            dispatcher_.count_in(calls_);
        for (uint32_t number = 1; number <= usual_procedures; ++number)
            calls_.add(number, number);
    }

    void call() {
        const CallHeader header = read_call_header(message_);
        bool is_answered = false;
        dispatcher_.dispatch(header, caller_, [&](MessageBytes reply) { is_answered = !reply.empty(); });
        check(is_answered, "a call");
    }
    size_t page() const { return metrics_text({}, {}, calls_, 0).size(); }

private:
    static constexpr uint32_t usual_procedures = 20; // that a daemon was called for

    AnyoneMay guard_;
    Owner owner_;
    Dispatcher dispatcher_;
    CallFigures calls_;
    Caller caller_ = {};
    const MessageBytes message_ = call_of_state();
};

void bm_call(benchmark::State &state) {
    Served served(false);
    for (auto _ : state)
        served.call();
}
BENCHMARK(bm_call);

void bm_counted_call(benchmark::State &state) {
    Served served(true);
    for (auto _ : state)
        served.call();
}
BENCHMARK(bm_counted_call);

void bm_page(benchmark::State &state) {
    Served served(true);
    for (auto _ : state)
        benchmark::DoNotOptimize(served.page());
}
BENCHMARK(bm_page);

} // namespace

int main(int argc, char **argv) {
    return bench::run(argc, argv, {{"bm_counted_call", "bm_call", 1.5}, {"bm_page", "bm_call", 400}});
}
