// Answers to look-ups that were made lately. Each is good for one version of the store, and is found under no other; so
// nothing has to be thrown away when the store changes, and no request pays for more than its own answer.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <server/registry/record.h>

namespace velia::server {

// A page of a fetch. `cursor` 0: nothing is left.
struct Batch {
    std::vector<Record> records;
    uint64_t cursor = 0;
};

class AnswerMemory {
public:
    using Answer = std::shared_ptr<const Batch>;

    explicit AnswerMemory(size_t bytes_max) : bytes_max_(bytes_max) {}

    // Null where there is none of this version.
    Answer find(std::string_view question, uint64_t version);

    // Takes the place of a former answer to the question, and of those that were not asked for longest where they would
    // be more than `bytes_max`.
    void keep(std::string question, uint64_t version, Answer answer);

    size_t bytes() const { return bytes_; }

private:
    struct Entry {
        std::string question;
        uint64_t version;
        Answer answer;
        size_t bytes;
    };
    using Entries = std::list<Entry>;

    void forget(Entries::iterator entry);

    size_t bytes_max_;
    size_t bytes_ = 0;
    Entries entries_;                                                // asked for last, first
    std::unordered_map<std::string_view, Entries::iterator> places_; // the questions are those of the entries
};

} // namespace velia::server
