// A reply on its way out: the record that is encoded, and an arena for what the record only points to.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace velia::server {

// Owns what was given to it, until it goes itself.
class Arena {
public:
    template <class Held>
    Held &keep(Held value) {
        const auto held = std::make_shared<Held>(std::move(value));
        held_.push_back(held);
        return *held;
    }

    // What others hold, too.
    template <class Held>
    const Held &share(std::shared_ptr<const Held> held) {
        const Held &value = *held;
        held_.push_back(std::move(held));
        return value;
    }

    // A text as records hold it; encoding only reads it.
    char *text(std::string value) { return keep(std::move(value)).data(); }

private:
    std::vector<std::shared_ptr<const void>> held_;
};

template <class Record>
struct Reply {
    Record record = {};
    Arena arena;
    std::function<void()> afterwards; // of work in a thread: what the loop does once it is done for good
};

// A text that outlives the reply, as records hold it.
inline char *unowned(const std::string &text) {
    return const_cast<char *>(text.c_str());
}

} // namespace velia::server
