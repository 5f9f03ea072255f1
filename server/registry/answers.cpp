// One list in the order of asking, and an index on it.
#include <server/registry/answers.h>

#include <numeric>

namespace velia::server {

namespace {

constexpr size_t overhead_bytes = 256; // of the list, the index and the blocks of an entry, about

size_t bytes_of(std::string_view question, const Batch &batch) {
    return std::accumulate(
        batch.records.begin(), batch.records.end(), overhead_bytes + question.size(),
        [](size_t bytes, const Record &record) { return bytes + sizeof record + record.flex_text.capacity(); });
}

} // namespace

AnswerMemory::Answer AnswerMemory::find(std::string_view question, uint64_t version) {
    const auto place = places_.find(question);
    if (place == places_.end() || place->second->version != version)
        return nullptr;
    entries_.splice(entries_.begin(), entries_, place->second);
    return place->second->answer;
}

void AnswerMemory::keep(std::string question, uint64_t version, Answer answer) {
    if (const auto former = places_.find(question); former != places_.end())
        forget(former->second);
    const size_t bytes = bytes_of(question, *answer);
    if (bytes > bytes_max_)
        return;
    while (bytes_ + bytes > bytes_max_)
        forget(std::prev(entries_.end()));
    entries_.push_front({std::move(question), version, std::move(answer), bytes});
    places_.emplace(entries_.front().question, entries_.begin());
    bytes_ += bytes;
}

void AnswerMemory::forget(Entries::iterator entry) {
    bytes_ -= entry->bytes;
    places_.erase(entry->question);
    entries_.erase(entry);
}

} // namespace velia::server
