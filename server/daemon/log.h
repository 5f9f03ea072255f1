// Messages on their way to the log, or to the terminal. A thread writes them, so that nobody waits for a disk, or for
// who does not read the other end. What there is no room for, or cannot be written, is counted, and told when that is
// over.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include <server/config/service.h>

namespace velia::server {

class Log {
public:
    enum { BYTES_MAX = 1 << 20 };

    // From now on messages come here. Not before a fork: the child would have no thread.
    Log();
    // Writes what is left, as far as that is taken within a second.
    ~Log();
    Log(const Log &) = delete;
    Log &operator=(const Log &) = delete;

    // Until what was said so far is written, for a second at most.
    void flush();

    // Messages that were not written, and of which that is still to be told.
    uint64_t lost() const;

    // Adds what a server has written, to where messages go; directly where there is no log. False, and nothing is
    // added, while half of the room is taken: the other half is for messages, and who writes much waits for itself.
    static bool add_output(const char *bytes, size_t size);

    // Which messages are written from now on, and how: as objects, or, where the journal reads what is written, with
    // the priorities that it knows.
    static void set_options(const LogOptions &options);

private:
    struct State;
    static bool add_lines(std::string_view text);

    static std::shared_ptr<State> current;
    static bool by_lines;          // what a server has written is no text as it is, but messages
    std::shared_ptr<State> state_; // the thread's, too, which may be in the midst of a write at the end
};

} // namespace velia::server
