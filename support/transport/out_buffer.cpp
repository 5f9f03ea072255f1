#include "out_buffer.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>

namespace velia::support::transport {

namespace {

constexpr size_t first_capacity = 1024;

OutBuffer &buffer_of(XDR *stream) {
    return *static_cast<OutBuffer *>(stream->x_private);
}

bool grow_to(OutBuffer &buffer, size_t wanted) {
    if (wanted > buffer.longest)
        return false;
    const size_t capacity = std::min(std::max({wanted, 2 * buffer.capacity, first_capacity}), buffer.longest);
    void *grown = realloc(buffer.bytes, capacity);
    if (grown == nullptr)
        return false;
    buffer.bytes = static_cast<char *>(grown);
    buffer.capacity = capacity;
    return true;
}

// The place of the next `length` bytes; null if there is none to be had.
char *take(XDR *stream, size_t length) {
    OutBuffer &buffer = buffer_of(stream);
    if (length > buffer.capacity - buffer.used && !grow_to(buffer, buffer.used + length))
        return nullptr;
    char *place = buffer.bytes + buffer.used;
    buffer.used += length;
    return place;
}

bool_t put_word(XDR *stream, const long *word) {
    char *place = take(stream, BYTES_PER_XDR_UNIT);
    if (place == nullptr)
        return FALSE;
    const uint32_t network_word = htonl(static_cast<uint32_t>(*word));
    memcpy(place, &network_word, sizeof network_word);
    return TRUE;
}

bool_t put_bytes(XDR *stream, const char *bytes, u_int length) {
    char *place = take(stream, length);
    if (place == nullptr)
        return FALSE;
    if (length > 0)
        memcpy(place, bytes, length);
    return TRUE;
}

u_int position(XDR *stream) {
    return static_cast<u_int>(buffer_of(stream).used);
}

bool_t set_position(XDR *stream, u_int wanted) {
    OutBuffer &buffer = buffer_of(stream);
    if (wanted > buffer.used)
        return FALSE;
    buffer.used = wanted;
    return TRUE;
}

int32_t *in_place(XDR *stream, u_int length) {
    return reinterpret_cast<int32_t *>(take(stream, length));
}

bool_t get_nothing(XDR *, long *) {
    return FALSE;
}

bool_t get_no_bytes(XDR *, char *, u_int) {
    return FALSE;
}

void leave_to_owner(XDR *) {}

bool_t know_no_request(XDR *, int, void *) {
    return FALSE;
}

const XDR::xdr_ops operations = {get_nothing,  put_word, get_no_bytes,   put_bytes,      position,
                                 set_position, in_place, leave_to_owner, know_no_request};

} // namespace

void encode_into(XDR *stream, OutBuffer &buffer) {
    buffer.used = 0;
    *stream = {};
    stream->x_op = XDR_ENCODE;
    stream->x_ops = &operations;
    stream->x_private = &buffer;
}

void release(OutBuffer &buffer) {
    free(buffer.bytes);
    buffer.bytes = nullptr;
    buffer.capacity = 0;
}

} // namespace velia::support::transport
