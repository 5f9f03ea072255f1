// What stays beside a registry and tells of it: that there was one, and how far it had come when that was last
// acknowledged. A file that has come less far under the same name is an older one, and is not served.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <server/loop/unique_fd.h>
#include <support/tbs.h>

namespace velia::server {

class RegistryTrace {
public:
    struct Mark {
        tbs_uuid_t registry = {};
        uint64_t changes = 0;
    };

    explicit RegistryTrace(const std::string &file_name) : file_name_(file_name) {}

    bool is_there() const;

    // What was noted last; nothing where there is no trace, or one of before there were marks.
    std::optional<Mark> mark() const;

    // Throws StoreError where what stands there has not come as far.
    static void require_not_older(const Mark &found, const std::optional<Mark> &acknowledged);

    // Makes it where it is not there, and opens it to be noted in. Throws StoreError.
    void leave();

    // Behind each commit, in place and without a wait for the disk: a mark that is lost with the power is an older one,
    // and refuses nothing. What cannot be noted is not.
    void note(const Mark &mark);

private:
    const std::string file_name_; // of the registry
    UniqueFd fd_;
    off_t place_ = 0; // of the line with the mark
};

} // namespace velia::server
