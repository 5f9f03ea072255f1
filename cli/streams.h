// Standard output is for results alone. What else writes there, as the library's messages of progress do, is turned to
// standard error; and what becomes of the results is known to the last byte.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>

#include <cli/duration.h>

namespace velia::cli {

class ResultsBuffer;

// While it lives, std::cout leads to what was standard output before.
class ResultsStream {
public:
    ResultsStream();
    ~ResultsStream();
    ResultsStream(const ResultsStream &) = delete;
    ResultsStream &operator=(const ResultsStream &) = delete;

private:
    std::unique_ptr<ResultsBuffer> buffer_;
};

// All that std::cout has is written. False, and told once, if something was lost, now or before.
bool flush_results();

// False, and told, when whoever reads the results goes within the time.
bool wait_while_read(Duration time);

bool is_terminal_for_results();

// How wide the terminal is to which results go, or what COLUMNS says; nothing if neither tells.
std::optional<size_t> columns_of_results();

} // namespace velia::cli
