// Times to wait, as people write them: seconds, with a fraction if they like.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include <sys/time.h>

namespace velia::cli {

using Duration = std::chrono::milliseconds;

// "25", "0.5", ".25": digits, and one point among them. What is finer than a millisecond is rounded up, so that no time
// becomes none. Nothing for another text, and for more seconds than anybody waits.
std::optional<Duration> duration_of_text(const std::string &text);

// The shortest text of it: "25", "0.5".
std::string text_of_duration(Duration duration);

timeval timeval_of(Duration duration);

// For interfaces that know whole seconds only: rounded up.
int whole_seconds(Duration duration);

} // namespace velia::cli
