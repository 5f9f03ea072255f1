// A fragment's length is believed only as far as the bound of a record; memory grows with the bytes that really came.
#include <server/rpc/record_assembler.h>

#include <algorithm>
#include <utility>

namespace velia::server {

namespace {

constexpr uint32_t last_fragment_flag = 0x80000000;

} // namespace

bool RecordAssembler::read_marker(Bytes &bytes) {
    while (marker_length_ < sizeof marker_ && !bytes.empty()) {
        marker_[marker_length_++] = bytes.front();
        bytes = bytes.subspan(1);
    }
    return marker_length_ == sizeof marker_;
}

bool RecordAssembler::begin_fragment() {
    uint32_t marker = 0;
    ByteReader(Bytes(marker_)).word(marker);
    marker_length_ = 0;
    is_last_fragment_ = (marker & last_fragment_flag) != 0;
    fragment_left_ = marker & ~last_fragment_flag;
    is_in_fragment_ = true;
    return ++fragment_count_ <= RECORD_FRAGMENTS_MAX && record_.size() + fragment_left_ <= RECORD_BYTES_MAX;
}

RecordAssembler::State RecordAssembler::feed(Bytes &bytes) {
    while (!is_complete_) {
        if (!is_in_fragment_) {
            if (!read_marker(bytes))
                return State::needs_bytes;
            if (!begin_fragment())
                return State::is_broken;
        }
        const size_t count = std::min(bytes.size(), fragment_left_);
        record_.insert(record_.end(), bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(count));
        bytes = bytes.subspan(count);
        fragment_left_ -= count;
        if (fragment_left_ != 0)
            return State::needs_bytes;
        is_in_fragment_ = false;
        is_complete_ = is_last_fragment_;
    }
    return State::has_record;
}

MessageBytes RecordAssembler::take() {
    is_complete_ = false;
    fragment_count_ = 0;
    return std::exchange(record_, {});
}

MessageBytes record_mark(size_t message_bytes) {
    const uint32_t marker = last_fragment_flag | static_cast<uint32_t>(message_bytes);
    MessageBytes record;
    for (const int shift : {24, 16, 8, 0})
        record.push_back(static_cast<unsigned char>(marker >> shift));
    return record;
}

MessageBytes with_record_mark(const MessageBytes &message) {
    MessageBytes record = record_mark(message.size());
    record.reserve(record.size() + message.size());
    record.insert(record.end(), message.begin(), message.end());
    return record;
}

} // namespace velia::server
