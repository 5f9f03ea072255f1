#include <tests/hostile/messages.h>

#include <cstring>

#include <arpa/inet.h>

namespace velia::hostile {

namespace {

constexpr uint32_t last_fragment = 0x80000000;
constexpr size_t header_words = 10; // of a call without credentials
constexpr size_t reply_header_bytes = 24;

} // namespace

Bytes as_words(const std::vector<uint32_t> &words) {
    Bytes bytes;
    for (const uint32_t word : words) {
        const uint32_t sent = htonl(word);
        bytes.append(reinterpret_cast<const char *>(&sent), sizeof sent);
    }
    return bytes;
}

uint32_t word_of(const Bytes &bytes, size_t index) {
    uint32_t word = 0;
    if (bytes.size() >= (index + 1) * sizeof word)
        memcpy(&word, bytes.data() + index * sizeof word, sizeof word);
    return ntohl(word);
}

uint32_t transaction_of(const Bytes &request) {
    return word_of(request, 0);
}

uint32_t number_sent(const Bytes &request) {
    return word_of(request, header_words);
}

// Transaction, REPLY, accepted, a verifier of no flavor and no bytes, success.
Bytes reply_of(uint32_t transaction, uint32_t number) {
    return as_words({transaction, 1, 0, 0, 0, 0, number});
}

Bytes right_reply(const Bytes &request) {
    return reply_of(transaction_of(request), number_sent(request));
}

std::vector<Bytes> malformed_replies(const Bytes &request) {
    const uint32_t transaction = transaction_of(request);
    std::vector<Bytes> replies = {
        as_words({transaction, 0, 0, 0, 0, 0, 1}),          // a call
        as_words({transaction, 2, 0, 0, 0, 0, 1}),          // of no direction
        as_words({transaction, 1, 2, 0, 0, 0, 1}),          // neither accepted nor denied
        as_words({transaction, 1, 0, 0, 0x7fffffff, 0, 1}), // a verifier that is longer than all
        as_words({transaction, 1, 0, 0, 0xffffffff, 0, 1}),
        as_words({transaction, 1, 0, 0, 404, 0, 1}) + Bytes(404, 'v'), // and one that is longer than one may be
    };
    for (size_t bytes = 0; bytes < reply_header_bytes; ++bytes)
        replies.push_back(right_reply(request).substr(0, bytes));
    return replies;
}

Bytes mark(uint32_t bytes, bool is_last) {
    return as_words({bytes | (is_last ? last_fragment : 0)});
}

Bytes as_record(const Bytes &message) {
    return mark(static_cast<uint32_t>(message.size()), true) + message;
}

Bytes as_fragments(const Bytes &message, size_t fragment_bytes) {
    Bytes bytes;
    for (size_t at = 0; at < message.size(); at += fragment_bytes) {
        const Bytes fragment = message.substr(at, fragment_bytes);
        bytes += mark(static_cast<uint32_t>(fragment.size()), at + fragment_bytes >= message.size()) + fragment;
    }
    return bytes;
}

} // namespace velia::hostile
