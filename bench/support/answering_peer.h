// A process that is the broker of a root directory of its own, and answers each procedure over TCP with bytes that were
// made before: what a call costs at the client's end.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include <sys/types.h>

namespace bench {

class AnsweringPeer {
public:
    using Results = std::map<uint32_t, std::string>; // by procedure, as they stand behind a reply's header

    // The contact of the broker's handles is answered, too. Ends the program with words when it cannot be made.
    explicit AnsweringPeer(Results results);
    ~AnsweringPeer();
    AnsweringPeer(const AnsweringPeer &) = delete;
    AnsweringPeer &operator=(const AnsweringPeer &) = delete;

    static constexpr const char *host = "bench-host";

private:
    std::string root_;
    pid_t child_ = -1;
};

} // namespace bench
