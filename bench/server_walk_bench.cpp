// The walk of a table of a thousand servers against the least that can bring the same records here: the same calls made
// by the RPC library alone, which look at nothing of the replies, and a memcpy of the records that these carry; with
// the blocks of a list's nodes, too. A list of a thousand nodes is more than a megabyte. The heap keeps it from one
// walk to the next, as it does in a program that has anything above it. What it costs where the heap gives it back to
// the system each time, and gets it page by page, is told by itself.
#include <bench/support/check.h>
#include <bench/support/ratio.h>
#include <bench/support/site.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <tests/system/support/population.h>
#include <veliaxdr/rvzd_servers.h>

namespace {

using bench::check;

constexpr size_t server_count = 1000;
constexpr int heap_kept_bytes = 16 << 20;

class Handle {
public:
    explicit Handle(uint32_t protocol) {
        check(rvzd_get_handle_proto(bench::Site::host, protocol, &handle_) == TBS_ST_OK, "handle");
    }
    ~Handle() { rvzd_free_handle(handle_); }
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;

    rvzd_handle_t *get() const { return handle_; }

private:
    rvzd_handle_t *handle_ = nullptr;
};

// One step of the walk: the cookie that it sends, and the records that come.
struct Step {
    uint64_t cookie;
    std::vector<uint64_t> records;
};
std::vector<Step> steps;

void note_steps(rvzd_handle_t *handle) {
    uint64_t cookie = 0;
    for (tbs_boolean_t at_end = 0; !at_end;) {
        Step step = {cookie, std::vector<uint64_t>(RVZD_SERVER_ENTRY_BYTES / sizeof(uint64_t))};
        uint64_t used = 0;
        check(rvzd_list_servers(handle, cookie, RVZD_SERVER_ENTRY_BYTES, reinterpret_cast<char *>(step.records.data()),
                                &cookie, &used, &at_end) == TBS_ST_OK,
              "step");
        check(used > 0, "records");
        step.records.resize(used / sizeof(uint64_t));
        steps.push_back(std::move(step));
    }
}

void walk(benchmark::State &state, uint32_t protocol, int32_t prog, size_t expected) {
    const Handle handle(protocol);
    for (auto _ : state) {
        llist_d_head_t servers;
        check(rvzd_list_matching_servers(handle.get(), prog, -1, -1, -1, nullptr, -1, nullptr, &servers) == TBS_ST_OK,
              "walk");
        size_t count = 0;
        for (llist_d_head_t *at = servers.next; at != &servers; at = at->next)
            ++count;
        check(count == expected, "list");
        rvzd_destroy_server_entry_list(&servers);
    }
}

bool_t take_nothing(XDR * /*stream*/, ...) {
    return TRUE;
}

void bare_call(CLIENT *client, const Step &step, uint64_t sequence) {
    constexpr timeval time_out = {25, 0};
    rvzd_list_servers_req_t request = {{1, sequence}, step.cookie, RVZD_SERVER_ENTRY_BYTES};
    check(clnt_call(client, RVZD_PROC_LIST_SERVERS, reinterpret_cast<xdrproc_t>(xdr_rvzd_list_servers_req_t), &request,
                    take_nothing, nullptr, time_out) == RPC_SUCCESS,
          "call");
}

void copy_records(const Step &step, char *copy) {
    memcpy(copy, step.records.data(), step.records.size() * sizeof(uint64_t));
    benchmark::DoNotOptimize(copy);
    benchmark::ClobberMemory();
}

void bare(benchmark::State &state, uint32_t protocol) {
    const Handle handle(protocol);
    CLIENT *client = rvzd_get_rpc_clnt(handle.get());
    uint64_t sequence = 0;
    char copy[RVZD_SERVER_ENTRY_BYTES];
    for (auto _ : state)
        for (const Step &step : steps) {
            bare_call(client, step, sequence++);
            copy_records(step, copy);
        }
}

void WalkUdp(benchmark::State &state) {
    walk(state, RVZD_PROTOCOL_UDP, RVZD_SERVER_ANY, server_count);
}
void WalkTcp(benchmark::State &state) {
    walk(state, RVZD_PROTOCOL_TCP, RVZD_SERVER_ANY, server_count);
}
void WalkForOneUdp(benchmark::State &state) {
    walk(state, RVZD_PROTOCOL_UDP, velia::system_test::Population::first_program, 1);
}
void BareCallsAndCopiesUdp(benchmark::State &state) {
    bare(state, RVZD_PROTOCOL_UDP);
}
void BareCallsAndCopiesTcp(benchmark::State &state) {
    bare(state, RVZD_PROTOCOL_TCP);
}

void CopiesAlone(benchmark::State &state) {
    char copy[RVZD_SERVER_ENTRY_BYTES];
    for (auto _ : state)
        for (const Step &step : steps)
            copy_records(step, copy);
}

// A block for each server, held until the last is there, as in a list.
void take_blocks() {
    static std::vector<void *> blocks(server_count);
    for (void *&block : blocks) {
        block = malloc(sizeof(rvzd_server_entry_elem_t));
        memcpy(block, steps.front().records.data(), RVZD_SERVER_ENTRY_NAME_OFFSET);
    }
    benchmark::ClobberMemory();
    for (void *block : blocks)
        free(block);
}

void BlocksAlone(benchmark::State &state) {
    for (auto _ : state)
        take_blocks();
}

void BlocksAnewFromTheSystem(benchmark::State &state) {
    for (auto _ : state) {
        take_blocks();
        malloc_trim(0);
    }
}

BENCHMARK(WalkUdp)->UseRealTime();
BENCHMARK(WalkForOneUdp)->UseRealTime();
BENCHMARK(BareCallsAndCopiesUdp)->UseRealTime();
BENCHMARK(WalkTcp)->UseRealTime();
BENCHMARK(BareCallsAndCopiesTcp)->UseRealTime();
BENCHMARK(CopiesAlone)->UseRealTime();
BENCHMARK(BlocksAlone)->UseRealTime();
BENCHMARK(BlocksAnewFromTheSystem)->UseRealTime();

} // namespace

int main(int argc, char **argv) {
    mallopt(M_TRIM_THRESHOLD, heap_kept_bytes);
    const bench::Site site(BENCH_DAEMON, BENCH_SAMPLE_SERVER);
    velia::system_test::Population population;
    {
        const Handle handle(RVZD_PROTOCOL_TCP);
        for (size_t i = 0; i < server_count; ++i)
            check(population.add(handle.get(), "/srv/vaults/project/number-" + std::to_string(i)) == TBS_ST_OK,
                  "registration");
        note_steps(handle.get());
    }
    printf("%zu servers, %zu calls\n", server_count, steps.size());
    return bench::run(argc, argv,
                      {{"WalkUdp", "BareCallsAndCopiesUdp", 1.15},
                       {"WalkForOneUdp", "BareCallsAndCopiesUdp", 1.15},
                       {"WalkTcp", "BareCallsAndCopiesTcp", 1.15},
                       {"WalkUdp", "CopiesAlone", 0},
                       {"BlocksAlone", "BareCallsAndCopiesUdp", 0},
                       {"BlocksAnewFromTheSystem", "BareCallsAndCopiesUdp", 0}});
}
