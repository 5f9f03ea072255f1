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
#if defined(__x86_64__) && __has_include(<sys/platform/x86.h>)
#ifdef __clang__
#define _Bool bool // NOLINT: the header has it of C, and GCC alone knows it in C++, too
#endif
#include <immintrin.h>
#include <sys/platform/x86.h>
#define WIDE [[gnu::target("avx2")]]
#endif

#include <rvzd/xdr/server_list.h>
#include <support/stg.h>
#include <support/xdr_prims.h>

namespace velia::wire {
namespace {

constexpr uint64_t end_mark_least_room = 80; // a zero name length is stored only where this much is left

enum : int { code_ipv4 = 1, code_ipv6 = 2 }; // the wire never carries the system's family numbers

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

    const char *peek() const { return at_; }
    size_t left() const { return left_; }
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

bool decode_port(const char *wire, rvzd_server_port_t &port) {
    const uint32_t code = word_at(wire);
    port.family = code == code_ipv4 ? AF_INET : AF_INET6;
    port.port = word_at(wire + word_bytes);
    return code == code_ipv4 || code == code_ipv6;
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
    for (auto &port : entry->ports.ports)
        port = {0, 0};
    bool known = true;
    for (size_t i = 0; i < present; ++i)
        known = decode_port(wire + i * port_bytes, entry->ports.ports[i]) && known;
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

// How the records at the head of a source are decoded at once: not at all.
struct OneByOne {
    template <class Source>
    static uint64_t decode_run(Source & /*source*/, const rvzd_list_servers_reply_t * /*record*/, uint64_t /*used*/) {
        return 0;
    }
};

#ifdef WIDE
// A record is a handful of stores as wide as the processor has them. What stands where is in the shuffles, each of
// which names the byte of the wire for every byte of the record. And nothing waits for what can be guessed: the place
// of the next record hangs on the length of the name and the count of ports, so both are compared with what they are
// likely to be, and the processor goes on at the guessed place meanwhile.
struct Wide {
    // As many as there are that stand whole in the window, with one or two ports of known families, and fit the buffer
    // behind its `used` bytes. The bytes of the buffer that they take; whatever comes next is not touched.
    WIDE static uint64_t decode_run(Window &source, rvzd_list_servers_reply_t *record, uint64_t used) {
        // So a name that is too long for its length field is too long for the window.
        const size_t bytes = source.left() < UINT16_MAX ? source.left() : size_t{UINT16_MAX};
        const char *const wire = source.peek();
        char *const buffer = record->buffer;
        const uint64_t room = record->size;
        const uint64_t begin = used;
        uint64_t last = used;
        size_t at = 0;
        uint32_t name_length = 0;
        while (bytes - at >= word_bytes + behind_name_bytes(RVZD_SERVER_PORTS_MAX)) {
            if (const uint32_t length = word_at(wire + at); length != name_length)
                name_length = as_read(length);
            const uint64_t entry_size = rvzd_server_entry_size(name_length);
            const size_t head = at + word_bytes + padded(name_length);
            if (head > bytes - behind_name_bytes(RVZD_SERVER_PORTS_MAX) || entry_size > room - used)
                break;
            auto *entry = reinterpret_cast<rvzd_server_entry_t *>(buffer + used);
            const char *name = wire + at + word_bytes;
            if (decode_ports_and_tail<2>(wire + head, entry))
                at = head + behind_name_bytes(2);
            else if (decode_ports_and_tail<1>(wire + head, entry))
                at = head + behind_name_bytes(1);
            else
                break;
            decode_head(wire + head, entry);
            decode_name(name, name_length, entry);
            last = used;
            used += entry_size;
        }
        if (used > begin)
            record->cookie = reinterpret_cast<const rvzd_server_entry_t *>(buffer + last)->cookie;
        source.take(at);
        return used - begin;
    }

private:
    static constexpr char none = -1; // of a shuffle: a zero

    // Keeps the compiler from seeing that a guess that came true is what was read.
    static uint32_t as_read(uint32_t word) {
        asm("" : "+r"(word));
        return word;
    }

    static constexpr size_t behind_name_bytes(size_t ports) {
        return head_bytes + word_bytes + ports * port_bytes + tail_bytes;
    }

    WIDE static __m128i load_16(const char *wire) { return _mm_loadu_si128(reinterpret_cast<const __m128i *>(wire)); }
    WIDE static __m256i load_32(const char *wire) {
        return _mm256_loadu_si256(reinterpret_cast<const __m256i *>(wire));
    }
    WIDE static void store_16(void *to, __m128i bytes) { _mm_storeu_si128(static_cast<__m128i *>(to), bytes); }
    WIDE static void store_32(void *to, __m256i bytes) { _mm256_storeu_si256(static_cast<__m256i *>(to), bytes); }

    WIDE static __m128i to_host_order() { return _mm_setr_epi8(3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12); }

    // The second store begins within the program, with the upper half, which is zero, so that it ends with the
    // transport.
    WIDE static void decode_head(const char *wire, rvzd_server_entry_t *entry) {
        const __m128i cookie_and_program = _mm_setr_epi8(3, 2, 1, 0, none, none, none, none, //
                                                         7, 6, 5, 4, none, none, none, none);
        const __m128i version_and_transport = _mm_setr_epi8(none, none, none, none, 11, 10, 9, 8, //
                                                            none, none, none, none, 15, 14, 13, 12);
        const __m128i words = load_16(wire);
        store_16(entry, _mm_shuffle_epi8(words, cookie_and_program));
        store_16(reinterpret_cast<char *>(&entry->trait.vers) - word_bytes,
                 _mm_shuffle_epi8(words, version_and_transport));
    }

    // False, and nothing is written, if there are not `present` ports, or one is of a family that is not known.
    template <int present>
    WIDE static bool decode_ports_and_tail(const char *head, rvzd_server_entry_t *entry) {
        // Count, family, port, family are looked at together.
        constexpr int second = present > 1 ? -1 : 0;
        const __m128i words = _mm_and_si128(_mm_shuffle_epi8(load_16(head + head_bytes), to_host_order()),
                                            _mm_setr_epi32(-1, -1, -1, second));
        const __m128i is_ipv4 = _mm_cmpeq_epi32(words, _mm_setr_epi32(present, code_ipv4, 0, code_ipv4));
        const __m128i is_ipv6 = _mm_cmpeq_epi32(words, _mm_setr_epi32(present, code_ipv6, 0, code_ipv6));
        constexpr int looked_at = present > 1 ? 0xf0ff : 0xff;
        if ((_mm_movemask_epi8(_mm_or_si128(is_ipv4, is_ipv6)) & looked_at) != looked_at)
            return false;
        decode_from_second_family<present>(head + head_bytes + word_bytes + (present - 1) * port_bytes, entry);
        constexpr int ipv4 = code_ipv4 ^ AF_INET; // what makes the one of the other
        constexpr int ipv6 = code_ipv6 ^ AF_INET6 ^ ipv4;
        const __m128i families = _mm_xor_si128(words, _mm_setr_epi32(0, ipv4, 0, second & ipv4));
        store_16(&entry->ports,
                 _mm_xor_si128(families, _mm_and_si128(is_ipv6, _mm_setr_epi32(0, ipv6, 0, second & ipv6))));
        return true;
    }

    // From the last port's family, which is written again, to the process id. Where there is one port, the
    // second is made of zeros in its place.
    template <int present>
    WIDE static void decode_from_second_family(const char *wire, rvzd_server_entry_t *entry) {
        constexpr char port = present > 1 ? 7 : none;
        constexpr char step = present > 1 ? 1 : 0;
        const __m256i places = _mm256_setr_epi8(none, none, none, none, port, port - step, port - 2 * step,
                                                port - 3 * step, 8, 9, 10, 11, 12, 13, 14, 15, //
                                                0, 1, 2, 3, 4, 5, 6, 7, 11, 10, 9, 8, 15, 14, 13, 12);
        store_32(&entry->ports.ports[1], _mm256_shuffle_epi8(load_32(wire), places));
    }

    // The length, the name and its end. The first store begins with the length, whose two lower bytes stand before the
    // name on the wire, too; the last one ends with the end; and they meet or overlap.
    WIDE static void decode_name(const char *wire, uint32_t length, rvzd_server_entry_t *entry) {
        constexpr uint32_t block = 32;
        char *name = rvzd_server_entry_name(entry);
        if (length - (block - 1) > block - 2) {
            copy_name(name, wire, length);
            name[length] = '\0';
            entry->name_length = static_cast<uint16_t>(length);
            return;
        }
        const __m256i length_to_host = _mm256_setr_epi8(1, 0, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, //
                                                        0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
        const __m256i but_last = _mm256_setr_epi32(-1, -1, -1, -1, -1, -1, -1, 0x00ffffff);
        store_32(&entry->name_length, _mm256_shuffle_epi8(load_32(wire - 2), length_to_host));
        store_32(name + length + 1 - block, _mm256_and_si256(load_32(wire + length + 1 - block), but_last));
    }
};
#endif

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

// What is not decoded at once is decoded field by field.
template <AddressForm form, class AtOnce, class Source>
bool_t decode_records(Source &source, rvzd_list_servers_reply_t *record) {
    for (uint64_t used = 0;;) {
        used += AtOnce::decode_run(source, record, used);
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

bool_t decode_from_pieces(XDR *xdrs, rvzd_list_servers_reply_t *record, AddressForm form) {
    Pieces pieces(xdrs);
    return form == AddressForm::ports ? decode_records<AddressForm::ports, OneByOne>(pieces, record)
                                      : decode_records<AddressForm::v70, OneByOne>(pieces, record);
}

bool_t decode_from_window(Window &window, rvzd_list_servers_reply_t *record, AddressForm form) {
    if (form == AddressForm::v70)
        return decode_records<AddressForm::v70, OneByOne>(window, record);
#ifdef WIDE
    if (CPU_FEATURE_ACTIVE(AVX2))
        return decode_records<AddressForm::ports, Wide>(window, record);
#endif
    return decode_records<AddressForm::ports, OneByOne>(window, record);
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
    if (place == nullptr)
        return decode_from_pieces(xdrs, record, form);
    Window window(static_cast<const char *>(place), bytes);
    const bool_t done = decode_from_window(window, record, form);
    XDR_INLINE(xdrs, static_cast<u_int>(window.taken()));
    return done;
}

} // namespace velia::wire
