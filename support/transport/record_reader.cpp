#include "record_reader.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>

#include <support/ks.h>

namespace velia::support::transport {

namespace {

constexpr size_t mark_size = 4;
constexpr uint32_t last_fragment_bit = 0x80000000;
constexpr size_t usual_capacity = 16 * 1024;

// False if the mark is not all there.
bool take_mark(RecordReader &reader) {
    if (reader.filled - reader.scan < mark_size)
        return false;
    uint32_t mark;
    memcpy(&mark, reader.bytes + reader.scan, mark_size);
    mark = ntohl(mark);
    reader.scan += mark_size;
    if (!reader.in_record || reader.begin == reader.end) // so that the usual record, of one fragment, is not moved
        reader.begin = reader.end = reader.scan;
    reader.in_record = true;
    reader.is_last_fragment = (mark & last_fragment_bit) != 0;
    reader.left_of_fragment = mark & ~last_fragment_bit;
    return true;
}

void take_of_fragment(RecordReader &reader) {
    const size_t count = std::min<size_t>(reader.left_of_fragment, reader.filled - reader.scan);
    if (reader.end != reader.scan)
        memmove(reader.bytes + reader.end, reader.bytes + reader.scan, count);
    reader.end += count;
    reader.scan += count;
    reader.left_of_fragment -= static_cast<uint32_t>(count);
}

bool is_too_large(const RecordReader &reader) {
    return reader.end - reader.begin + reader.left_of_fragment > KS_RECORD_MAX;
}

// Moves what is still needed to the front.
void compact(RecordReader &reader) {
    const size_t kept = reader.end - reader.begin;
    const size_t unread = reader.filled - reader.scan;
    if (reader.begin > 0 && kept > 0)
        memmove(reader.bytes, reader.bytes + reader.begin, kept);
    if (reader.scan > kept && unread > 0)
        memmove(reader.bytes + kept, reader.bytes + reader.scan, unread);
    reader.begin = 0;
    reader.end = reader.scan = kept;
    reader.filled = kept + unread;
}

bool grow(RecordReader &reader) {
    const size_t capacity = std::max(2 * reader.capacity, usual_capacity);
    void *grown = realloc(reader.bytes, capacity);
    if (grown == nullptr)
        return false;
    reader.bytes = static_cast<char *>(grown);
    reader.capacity = capacity;
    return true;
}

} // namespace

Record next_record(RecordReader &reader) {
    if (!reader.in_record)
        reader.begin = reader.end = reader.scan;
    for (;;) {
        if (reader.left_of_fragment == 0 && !take_mark(reader))
            return Record::incomplete;
        if (is_too_large(reader))
            return Record::too_large;
        take_of_fragment(reader);
        if (reader.left_of_fragment > 0)
            return Record::incomplete;
        if (reader.is_last_fragment) {
            reader.in_record = false;
            return Record::whole;
        }
    }
}

char *room(RecordReader &reader, size_t &size) {
    if (!reader.in_record)
        reader.begin = reader.end = reader.scan;
    // What is left before the record and between its fragments is used first.
    if (reader.scan == reader.filled || reader.filled == reader.capacity)
        compact(reader);
    if (reader.filled == reader.capacity && !grow(reader))
        return nullptr;
    size = reader.capacity - reader.filled;
    return reader.bytes + reader.filled;
}

void arrived(RecordReader &reader, size_t count) {
    reader.filled += count;
}

void begin_anew(RecordReader &reader) {
    const RecordReader emptied = {reader.bytes, reader.capacity, 0, 0, 0, 0, 0, false, false};
    reader = emptied;
}

void shrink(RecordReader &reader) {
    if (reader.capacity <= usual_capacity || reader.in_record || reader.scan != reader.filled)
        return;
    release(reader);
    begin_anew(reader);
}

void release(RecordReader &reader) {
    free(reader.bytes);
    reader.bytes = nullptr;
    reader.capacity = 0;
}

} // namespace velia::support::transport
