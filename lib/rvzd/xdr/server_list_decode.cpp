// Taking a server list off the wire, into the flat buffer of a reply.
//
// A record is read in pieces of known size, not field by field: a full reply has more than two thousand fields, and a
// call of the stream for each of them costs many times what the bytes cost. One parser serves every stream, so whatever
// the stream is, the same bytes are accepted and refused with the same results. The words are those that the
// primitives of xdr_prims.h promise. Sizes are computed in 64 bits before they are compared, so no length on the wire
// can wrap one around.
#include <cstring>

#include <arpa/inet.h>
#include <sys/socket.h>

#include <rvzd/xdr/server_list.h>
#include <support/stg.h>
#include <support/xdr_prims.h>

namespace velia::wire {
namespace {

constexpr uint64_t end_mark_least_room = 80; // a zero name length is stored only where this much is left

constexpr size_t word_bytes = 4;
constexpr size_t head_bytes = 4 * word_bytes; // cookie, program, version, transport
constexpr size_t port_bytes = 2 * word_bytes; // family code and port
constexpr size_t sockaddr_bytes = 16;
constexpr size_t tail_bytes = sizeof(tbs_uuid_t) + 2 * word_bytes; // uuid, state, process id
constexpr size_t piece_bytes_max = 64;

static_assert(head_bytes + sockaddr_bytes + tail_bytes <= piece_bytes_max);
static_assert(RVZD_SERVER_PORTS_MAX * port_bytes + tail_bytes <= piece_bytes_max);

uint32_t word_at(const char *wire) {
    uint32_t word;
    memcpy(&word, wire, sizeof word);
    return ntohl(word);
}

int32_t signed_word_at(const char *wire) {
    return static_cast<int32_t>(word_at(wire));
}

size_t padded(size_t length) {
    return (length + 3) & ~size_t{3};
}

// A memcpy for short lengths that are not known beforehand: whole blocks, the last of which may overlap the one before
// it. Calling the C library for each name takes a third of the whole decoding.
void copy_name(char *to, const char *from, size_t length) {
    constexpr size_t block = 16;
    if (length < block) {
        memcpy(to, from, length);
        return;
    }
    const size_t last = length - block;
    for (size_t at = 0; at < last; at += block)
        memcpy(to + at, from + at, block);
    memcpy(to + last, from + last, block);
}

// A stream all of whose bytes lie before us in one piece.
class Window {
public:
    Window(const char *bytes, size_t size) : at_(bytes), left_(size), size_(size) {}

    // The next bytes, or null when there are not so many.
    const char *take(size_t size) {
        if (size > left_)
            return nullptr;
        const char *piece = at_;
        at_ += size;
        left_ -= size;
        return piece;
    }

    // Copies the next bytes and skips their padding.
    bool take_name(char *name, size_t length) {
        const char *piece = take(padded(length));
        if (piece == nullptr)
            return false;
        copy_name(name, piece, length);
        return true;
    }

    size_t taken() const { return size_ - left_; }

private:
    const char *at_;
    size_t left_;
    size_t size_;
};

// Any other stream: pieces inline where it has them in its memory, and copied where it has not, as across the
// fragments of a TCP record.
class Pieces {
public:
    explicit Pieces(XDR *xdrs) : xdrs_(xdrs) {}

    const char *take(size_t size) {
        const auto bytes = static_cast<u_int>(size);
        if (const void *piece = XDR_INLINE(xdrs_, bytes))
            return static_cast<const char *>(piece);
        return XDR_GETBYTES(xdrs_, copy_, bytes) ? copy_ : nullptr;
    }

    bool take_name(char *name, size_t length) { return xdr_opaque(xdrs_, name, static_cast<u_int>(length)); }

private:
    XDR *xdrs_;
    char copy_[piece_bytes_max];
};

// The wire never carries the system's family numbers.
bool decode_port(const char *wire, rvzd_server_port_t &port) {
    const uint32_t code = word_at(wire);
    port.family = code == 1 ? AF_INET : AF_INET6;
    port.port = word_at(wire + word_bytes);
    return code == 1 || code == 2;
}

// What stands behind the ports.
void decode_tail(const char *wire, rvzd_server_entry_t *entry) {
    memcpy(&entry->uuid, wire, sizeof entry->uuid);
    entry->state = signed_word_at(wire + sizeof entry->uuid);
    entry->pid = signed_word_at(wire + sizeof entry->uuid + word_bytes);
}

void decode_head(const char *wire, rvzd_server_entry_t *entry) {
    entry->cookie = word_at(wire);
    entry->trait.prog = word_at(wire + word_bytes);
    entry->trait.vers = word_at(wire + 2 * word_bytes);
    entry->trait.proto = signed_word_at(wire + 3 * word_bytes);
}

template <size_t present, class Source>
bool decode_ports_and_tail(Source &source, rvzd_server_entry_t *entry) {
    const char *wire = source.take(present * port_bytes + tail_bytes);
    if (wire == nullptr)
        return false;
    bool known = true;
    for (size_t i = 0; i < RVZD_SERVER_PORTS_MAX; ++i) {
        entry->ports.ports[i] = {0, 0};
        if (i < present)
            known = decode_port(wire + i * port_bytes, entry->ports.ports[i]) && known;
    }
    decode_tail(wire + present * port_bytes, entry);
    return known;
}

// A count above two still has two ports behind it, and nothing skips the rest. The cases are told apart by a branch,
// which is guessed ahead, so that finding the next record need not wait for the count of this one.
template <class Source>
bool decode_with_ports(Source &source, rvzd_server_entry_t *entry) {
    const char *wire = source.take(head_bytes + word_bytes);
    if (wire == nullptr)
        return false;
    decode_head(wire, entry);
    entry->ports.count = word_at(wire + head_bytes);
    switch (entry->ports.count) {
    case 0:
        return decode_ports_and_tail<0>(source, entry);
    case 1:
        return decode_ports_and_tail<1>(source, entry);
    default:
        return decode_ports_and_tail<2>(source, entry);
    }
}

// The socket address becomes a list of one port.
template <class Source>
bool decode_with_sockaddr(Source &source, rvzd_server_entry_t *entry) {
    const char *wire = source.take(head_bytes + sockaddr_bytes + tail_bytes);
    if (wire == nullptr)
        return false;
    decode_head(wire, entry);
    const uint32_t family_and_port = word_at(wire + head_bytes);
    const uint32_t family = family_and_port >> 16;
    if (family != AF_INET && family != AF_UNSPEC)
        return false;
    entry->ports = {1, {{AF_INET, family_and_port & UINT16_MAX}, {0, 0}}};
    decode_tail(wire + head_bytes + sockaddr_bytes, entry);
    return true;
}

template <AddressForm form, class Source>
bool decode_entry(Source &source, rvzd_server_entry_t *entry, uint32_t name_length) {
    char *name = rvzd_server_entry_name(entry);
    if (!source.take_name(name, name_length))
        return false;
    if (!(form == AddressForm::ports ? decode_with_ports(source, entry) : decode_with_sockaddr(source, entry)))
        return false;
    name[name_length] = '\0';
    entry->name_length = static_cast<uint16_t>(name_length);
    return true;
}

bool_t end_before_record(rvzd_list_servers_reply_t *record, uint64_t used) {
    record->at_end = FALSE;
    record->size = used;
    return TRUE;
}

template <class Source>
bool_t end_behind_records(Source &source, rvzd_list_servers_reply_t *record, uint64_t used) {
    if (record->size - used >= end_mark_least_room)
        entry_at(record, used)->name_length = 0;
    const char *at_end = source.take(word_bytes);
    if (at_end == nullptr)
        return FALSE;
    record->at_end = word_at(at_end) != 0;
    record->size = used;
    return TRUE;
}

template <AddressForm form, class Source>
bool_t decode_records(Source &source, rvzd_list_servers_reply_t *record) {
    for (uint64_t used = 0;;) {
        const char *wire = source.take(word_bytes);
        if (wire == nullptr)
            return FALSE;
        const uint32_t name_length = word_at(wire);
        if (name_length == end_of_records)
            return end_behind_records(source, record, used);
        const uint64_t entry_size = rvzd_server_entry_size(name_length);
        // A name whose length its 16 bits cannot hold fits no buffer.
        if (entry_size > record->size - used || name_length > UINT16_MAX)
            return end_before_record(record, used);
        rvzd_server_entry_t *entry = entry_at(record, used);
        if (!decode_entry<form>(source, entry, name_length))
            return FALSE;
        record->cookie = entry->cookie;
        used += entry_size;
    }
}

template <class Source>
bool_t decode_from(Source &source, rvzd_list_servers_reply_t *record, AddressForm form) {
    return form == AddressForm::ports ? decode_records<AddressForm::ports>(source, record)
                                      : decode_records<AddressForm::v70>(source, record);
}

// How many bytes a stream has left, if it is one over memory that it hands out; else 0. Such a stream is known by its
// operations, and a stream of one word shows that its handy word counts the bytes.
size_t bytes_in_memory(const XDR *xdrs) {
    uint32_t word = 0;
    XDR known;
    xdrmem_create(&known, reinterpret_cast<char *>(&word), sizeof word, XDR_DECODE);
    const bool is_alike = xdrs->x_ops == known.x_ops && known.x_handy == sizeof word;
    return is_alike ? xdrs->x_handy : 0;
}

} // namespace

bool_t decode_server_list(XDR *xdrs, rvzd_list_servers_reply_t *record, AddressForm form) {
    if (record->buffer == nullptr) {
        record->buffer = static_cast<char *>(stg_malloc(record->size));
        if (record->buffer == nullptr)
            return FALSE;
    }
    const size_t bytes = bytes_in_memory(xdrs);
    // No bytes inline are the place where the stream stands, and nothing of it is taken.
    const void *place = bytes > 0 ? XDR_INLINE(xdrs, 0) : nullptr;
    if (place == nullptr) {
        Pieces pieces(xdrs);
        return decode_from(pieces, record, form);
    }
    Window window(static_cast<const char *>(place), bytes);
    const bool_t done = decode_from(window, record, form);
    XDR_INLINE(xdrs, static_cast<u_int>(window.taken()));
    return done;
}

} // namespace velia::wire
