// Records (RFC 5531, section 11) out of a stream of bytes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace velia::support::transport {

// A plain record, all zero at first: `[begin, end)` is what has come of the record in hand, and behind `scan` stands
// what has not been looked at.
struct RecordReader {
    char *bytes;
    size_t capacity;
    size_t begin;
    size_t end;
    size_t scan;
    size_t filled;
    uint32_t left_of_fragment;
    bool in_record;
    bool is_last_fragment;
};

enum class Record { whole, incomplete, too_large };

// Looks at what has come. A whole record stands at `bytes + begin` until `end`, and is over with the next call.
Record next_record(RecordReader &reader);

// Where further bytes go, `size` of them at most; null without memory for them.
char *room(RecordReader &reader, size_t &size);
void arrived(RecordReader &reader, size_t count);

// A new stream begins. Keeps the storage.
void begin_anew(RecordReader &reader);

// Gives back storage that only a large record needs. Not while a record is looked at.
void shrink(RecordReader &reader);

void release(RecordReader &reader);

} // namespace velia::support::transport
