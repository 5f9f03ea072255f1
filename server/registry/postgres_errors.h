// What errors of the database mean for those who wait for it, and the words for them.
#pragma once

#include <string>

namespace velia::server {

// Throws what an error of this code is: StoreAway, StoreBusy, or StoreError. `words` are the database's own; the empty
// code is that of a server that did not answer.
[[noreturn]] void throw_postgres_error(const std::string &code, const std::string &words);

// The code in what a connection says that was not made; empty if no server said so.
std::string code_in(const std::string &connection_words);

// Its first message in one line, without code and place in the source.
std::string first_message_in(const std::string &connection_words);

} // namespace velia::server
