// What goes wrong, on standard error: in words, or as objects when results are JSON.
#pragma once

#include <functional>
#include <string>

#include <support/imsg.h>
#include <support/tbs.h>

namespace velia::cli {

// From now on each message, the library's too, is a line with an object: severity, message, status, host.
void tell_in_json();
bool tells_in_json();

// An error that has a status; `host` is whose it is, or empty. The text ends with a line feed.
void tell_failure(tbs_status_t status, const std::string &host, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// The same for messages that somebody else's words are for: those that `tell` prints.
void tell_failure_by(tbs_status_t status, const std::string &host, const std::function<void()> &tell);

// Runs `work`, whose messages carry the host and the status that it ends with, which is returned.
tbs_status_t tell_failures_of(const std::string &host, const std::function<tbs_status_t()> &work);

// A message that somebody listens to in place of those who would read it.
struct Heard {
    int severity;
    const imsg_table_t *table; // null: of none
    int index;
    std::string text;
};

// Runs `work`, all of whose messages go to the listener alone.
void hear(const std::function<void(const Heard &)> &listener, const std::function<void()> &work);

// The status in one word, as programs compare it.
std::string name_of_status(tbs_status_t status);

} // namespace velia::cli
