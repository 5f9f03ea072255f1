// Record marking over a byte stream: fragments come in, whole records go out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <server/rpc/call_header.h>
#include <server/rpc/reply.h>

namespace velia::server {

enum { RECORD_BYTES_MAX = 65536, RECORD_FRAGMENTS_MAX = 1024 };

class RecordAssembler {
public:
    enum class State {
        needs_bytes,
        has_record, // take() gives it
        is_broken,  // larger than a record may be: the stream cannot be followed any further
    };

    // Consumes from the front of `bytes` up to the end of a record; what is left stays in `bytes`.
    State feed(Bytes &bytes);

    // The record just completed; the next one begins empty.
    MessageBytes take();

    // True while a record has begun and not ended.
    bool is_within_record() const { return marker_length_ != 0 || !record_.empty() || fragment_count_ != 0; }

private:
    bool read_marker(Bytes &bytes);
    bool begin_fragment();

    MessageBytes record_;
    unsigned char marker_[4] = {};
    size_t marker_length_ = 0;
    size_t fragment_left_ = 0;
    uint32_t fragment_count_ = 0;
    bool is_in_fragment_ = false;
    bool is_last_fragment_ = false;
    bool is_complete_ = false;
};

// The reply as one record of one fragment.
MessageBytes record_mark(size_t message_bytes);
MessageBytes with_record_mark(const MessageBytes &message);

} // namespace velia::server
