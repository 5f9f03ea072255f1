// Replies as bytes, right ones and wrong ones, to a call of the procedure that gives back the number that it was sent.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace velia::hostile {

using Bytes = std::string;

Bytes as_words(const std::vector<uint32_t> &words);
uint32_t word_of(const Bytes &bytes, size_t index);

// Of a call without credentials.
uint32_t transaction_of(const Bytes &request);
uint32_t number_sent(const Bytes &request);

// An accepted reply with a number in it.
Bytes reply_of(uint32_t transaction, uint32_t number);
Bytes right_reply(const Bytes &request);

// Replies to this call that no RPC reply may look like: cut off, of another direction, with words that nobody defined.
std::vector<Bytes> malformed_replies(const Bytes &request);

// On a stream: the message as a record, as one of many fragments, and the mark alone.
Bytes as_record(const Bytes &message);
Bytes as_fragments(const Bytes &message, size_t fragment_bytes);
Bytes mark(uint32_t bytes, bool is_last);

} // namespace velia::hostile
