// Going to the background so that whoever started the daemon learns whether it came up.
#pragma once

#include <string>

#include <server/loop/unique_fd.h>

namespace velia::server {

class Background {
public:
    // In the child: returns with a session of its own. The parent does not return: it ends with 0 once the child has
    // called came_up, and with 1 if the child ends without. False: the fork failed, and is told.
    bool enter();

    // Lets the parent go. Does nothing in the foreground.
    void came_up() { to_parent_.reset_with_word(); }

private:
    struct ParentEnd {
        UniqueFd fd;
        void reset_with_word();
    };
    ParentEnd to_parent_;
};

// Sends later messages, and what servers write to their standard output and error, to the log file. A name without a
// "/" is a file of the log directory. False: it cannot be written, and that is told.
bool redirect_to_log(const std::string &name);

// Opens that file again by its name, which may be another one by now. What cannot be opened is told in the former.
void reopen_log();

// Marks every descriptor beyond the standard ones to be closed on exec: servers inherit what they are given, and
// nothing that the daemon was given by its own parent.
void close_descriptors_on_exec();

} // namespace velia::server
