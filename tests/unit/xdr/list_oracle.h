// The same server list decoded in four ways: field by field with the primitives, and by the library's routine from
// memory that a stream hands out, from memory that it does not (misaligned), and from the fragments of a record stream.
#pragma once

#include <algorithm>
#include <ostream>

#include <gtest/gtest.h>

#include <support/stg.h>
#include <tests/unit/xdr/samples.h>

namespace wire_tests {

struct Decoded {
    bool done;
    uint64_t word = 0;
    int32_t status = 0;
    uint64_t cookie = 0;
    uint64_t size = 0;
    tbs_boolean_t at_end = 0;
    size_t consumed = 0;
    std::string buffer; // whole, so that a byte written where none belongs shows

    bool operator==(const Decoded &) const = default;
};

inline void PrintTo(const Decoded &decoded, std::ostream *out) {
    *out << (decoded.done ? "accepted" : "refused") << ", status " << decoded.status << ", cookie " << decoded.cookie
         << ", size " << decoded.size << ", at_end " << decoded.at_end << ", consumed " << decoded.consumed
         << ", buffer " << testing::PrintToString(decoded.buffer);
}

constexpr tbs_boolean_t at_end_before = 5;
constexpr uint64_t cookie_before = 99;

// What a refused list leaves in the record and the buffer is nobody's business.
inline Decoded outcome(bool done, const rvzd_list_servers_reply_t &reply, size_t consumed, uint64_t capacity) {
    if (!done)
        return {false, 0, 0, 0, 0, 0, 0, {}};
    return {true,
            reply.header.word,
            reply.header.status,
            reply.cookie,
            reply.size,
            reply.at_end,
            consumed,
            {reply.buffer, reply.buffer + capacity}};
}

// A buffer of `capacity` bytes at its own end of the heap.
class ListBuffer {
public:
    explicit ListBuffer(uint64_t capacity) : words_(static_cast<char *>(malloc(capacity + 1))), capacity_(capacity) {
        memset(words_, 'x', capacity + 1);
    }
    ~ListBuffer() { free(words_); }
    ListBuffer(const ListBuffer &) = delete;
    ListBuffer &operator=(const ListBuffer &) = delete;

    rvzd_list_servers_reply_t reply() { return {{}, cookie_before, capacity_, at_end_before, words_}; }

private:
    char *words_;
    uint64_t capacity_;
};

inline bool ports_by_fields(XDR *stream, rvzd_server_port_list_t &ports, bool v70) {
    if (!v70)
        return xdr_rvzd_server_port_list_t(stream, &ports);
    rvzd_sockaddr_in_t address;
    if (!xdr_sockaddr_in(stream, &address))
        return false;
    ports = {1, {{AF_INET, ntohs(address.sin_port)}, {0, 0}}};
    return true;
}

inline bool entry_by_fields(XDR *stream, rvzd_server_entry_t *entry, uint32_t length, bool v70) {
    char *name = rvzd_server_entry_name(entry);
    enum_t state = 0;
    if (!xdr_opaque(stream, name, length) || !velia_xdr_u_long(stream, &entry->cookie) ||
        !xdr_rvzd_rpc_trait_t(stream, &entry->trait) || !ports_by_fields(stream, entry->ports, v70) ||
        !xdr_tbs_uuid_t(stream, &entry->uuid) || !xdr_enum(stream, &state) || !xdr_pid_t(stream, &entry->pid))
        return false;
    entry->state = state;
    entry->name_length = static_cast<uint16_t>(length);
    name[length] = '\0';
    return true;
}

inline bool list_by_fields(XDR *stream, rvzd_list_servers_reply_t &reply, bool v70) {
    if (!xdr_rvzd_hdr_reply_t(stream, &reply.header))
        return false;
    if (reply.header.status != TBS_ST_OK)
        return true;
    const uint64_t capacity = reply.size;
    uint64_t used = 0;
    uint32_t length = 0;
    while (xdr_u_int(stream, &length)) {
        auto *entry = reinterpret_cast<rvzd_server_entry_t *>(reply.buffer + used);
        if (length == UINT32_MAX) {
            if (capacity - used > 79)
                entry->name_length = 0;
            reply.size = used;
            return xdr_tbs_boolean_t(stream, &reply.at_end);
        }
        const uint64_t size = (uint64_t{length} + 86) / 8 * 8;
        if (capacity - used < size || length > UINT16_MAX) {
            reply.at_end = 0;
            reply.size = used;
            return true;
        }
        if (!entry_by_fields(stream, entry, length, v70))
            return false;
        reply.cookie = entry->cookie;
        used += size;
    }
    return false;
}

inline Decoded decode_by_fields(const Bytes &bytes, uint64_t capacity, bool v70) {
    ListBuffer buffer(capacity);
    auto reply = buffer.reply();
    XDR stream;
    xdrmem_create(&stream, const_cast<char *>(bytes.data()), static_cast<u_int>(bytes.size()), XDR_DECODE);
    const bool done = list_by_fields(&stream, reply, v70);
    return outcome(done, reply, xdr_getpos(&stream), capacity);
}

inline bool_t (*list_routine(bool v70))(XDR *, rvzd_list_servers_reply_t *) {
    return v70 ? xdr_rvzd_list_servers_v70_reply_t : xdr_rvzd_list_servers_reply_t;
}

inline Decoded decode_from_memory(const Bytes &bytes, uint64_t capacity, bool v70, size_t misalignment) {
    ListBuffer buffer(capacity);
    auto reply = buffer.reply();
    size_t consumed = 0;
    const bool done = decode(list_routine(v70), bytes, reply, &consumed, misalignment);
    return outcome(done, reply, consumed, capacity);
}

// What a peer sends on a connection: one record in fragments, arriving in portions.
struct Arrivals {
    Bytes bytes;
    size_t taken = 0;
    Sampler *sampler = nullptr;

    static int read(void *context, void *target, int size) {
        auto *arrivals = static_cast<Arrivals *>(context);
        const size_t left = arrivals->bytes.size() - arrivals->taken;
        const size_t portion = std::min({left, static_cast<size_t>(size), 1 + arrivals->sampler->number(300)});
        if (portion == 0)
            return -1;
        memcpy(target, arrivals->bytes.data() + arrivals->taken, portion);
        arrivals->taken += portion;
        return static_cast<int>(portion);
    }
};

inline Bytes in_fragments(const Bytes &bytes, Sampler &sampler) {
    constexpr uint32_t last_fragment = 0x80000000;
    Bytes sent;
    for (size_t place = 0; place < bytes.size() || sent.empty();) {
        const size_t size = std::min(bytes.size() - place, 1 + sampler.number(200));
        const bool is_last = place + size == bytes.size();
        const uint32_t mark = htonl(static_cast<uint32_t>(size) | (is_last ? last_fragment : 0));
        sent.append(reinterpret_cast<const char *>(&mark), sizeof mark).append(bytes, place, size);
        place += size;
        if (is_last)
            break;
    }
    return sent;
}

inline Decoded decode_from_fragments(const Bytes &bytes, uint64_t capacity, bool v70, Sampler &sampler) {
    Arrivals arrivals = {in_fragments(bytes, sampler), 0, &sampler};
    ListBuffer buffer(capacity);
    auto reply = buffer.reply();
    XDR stream = {};
    xdrrec_create(&stream, 0, 0, &arrivals, Arrivals::read, nullptr);
    stream.x_op = XDR_DECODE;
    const bool done = xdrrec_skiprecord(&stream) && list_routine(v70)(&stream, &reply);
    // The stream does not tell its place; what is left of the record does.
    size_t left = 0;
    for (char byte = 0; done && XDR_GETBYTES(&stream, &byte, 1); ++left)
        ;
    XDR_DESTROY(&stream);
    return outcome(done, reply, bytes.size() - left, capacity);
}

} // namespace wire_tests
