// Decoding a full server list reply into the caller's buffer, against memcpy of the same bytes, and against memcpy with
// the allocation that a reply without a buffer needs.
#include <bench/support/ratio.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <benchmark/benchmark.h>
#include <sys/socket.h>

#include <veliaxdr/rvzd_wire.h>

namespace {

constexpr size_t name_length = 40; // a path of a usual length

std::vector<char> wire_bytes;
size_t decoded_bytes;

// As many records as one reply carries.
void make_reply() {
    std::vector<uint64_t> records(65536 / 8);
    char *at = reinterpret_cast<char *>(records.data());
    const size_t size = rvzd_server_entry_size(name_length);
    const size_t count = 65536 / size;
    for (size_t i = 0; i < count; ++i, at += size) {
        auto *entry = reinterpret_cast<rvzd_server_entry_t *>(at);
        entry->cookie = i + 1;
        entry->trait = {390600, 1, RVZD_PROTOCOL_TCP};
        entry->ports = {2, {{AF_INET, 40000}, {AF_INET6, 40000}}};
        entry->state = 1;
        entry->pid = 1000;
        entry->name_length = name_length;
        memset(rvzd_server_entry_name(entry), 'n', name_length);
    }
    rvzd_list_servers_reply_t reply = {{}, 0, count * size, TRUE, reinterpret_cast<char *>(records.data())};
    wire_bytes.resize(65536);
    XDR xdrs;
    xdrmem_create(&xdrs, wire_bytes.data(), static_cast<u_int>(wire_bytes.size()), XDR_ENCODE);
    if (!xdr_rvzd_list_servers_reply_t(&xdrs, &reply))
        exit(1);
    wire_bytes.resize(xdr_getpos(&xdrs));
}

void decode(char *buffer, size_t capacity) {
    rvzd_list_servers_reply_t reply = {{}, 0, capacity, FALSE, buffer};
    XDR xdrs;
    xdrmem_create(&xdrs, wire_bytes.data(), static_cast<u_int>(wire_bytes.size()), XDR_DECODE);
    if (!xdr_rvzd_list_servers_reply_t(&xdrs, &reply))
        exit(1);
    decoded_bytes = reply.size;
    benchmark::DoNotOptimize(reply.buffer);
    if (buffer == nullptr)
        xdr_free(reinterpret_cast<xdrproc_t>(xdr_rvzd_list_servers_reply_t), &reply);
}

void DecodeIntoCallersBuffer(benchmark::State &state) {
    std::vector<uint64_t> buffer(65536 / 8);
    for (auto _ : state)
        decode(reinterpret_cast<char *>(buffer.data()), 65536);
    benchmark::ClobberMemory();
}

void DecodeWithAllocation(benchmark::State &state) {
    for (auto _ : state)
        decode(nullptr, 16384);
}

void CopyBytes(benchmark::State &state) {
    std::vector<char> buffer(wire_bytes.size());
    for (auto _ : state) {
        memcpy(buffer.data(), wire_bytes.data(), wire_bytes.size());
        benchmark::ClobberMemory();
    }
}

void CopyBytesWithAllocation(benchmark::State &state) {
    for (auto _ : state) {
        void *buffer = malloc(16384);
        memcpy(buffer, wire_bytes.data(), wire_bytes.size());
        benchmark::DoNotOptimize(buffer);
        benchmark::ClobberMemory();
        free(buffer);
    }
}

BENCHMARK(DecodeIntoCallersBuffer);
BENCHMARK(DecodeWithAllocation);
BENCHMARK(CopyBytes);
BENCHMARK(CopyBytesWithAllocation);

} // namespace

int main(int argc, char **argv) {
    make_reply();
    decode(nullptr, 65536);
    printf("one reply: %zu bytes on the wire, %zu in the buffer\n", wire_bytes.size(), decoded_bytes);
    return bench::run(
        argc, argv,
        {{"DecodeIntoCallersBuffer", "CopyBytes", 3}, {"DecodeWithAllocation", "CopyBytesWithAllocation", 3}});
}
