#include <server/registry/registry.h>

#include <algorithm>

#include <server/registry/copy.h>
#include <server/registry/password.h>

namespace velia::server {

namespace {

constexpr size_t word_bytes = 4;
constexpr const char *password_setting = "password";
constexpr uint64_t numbers_of_former_master = 1'000'000; // more than it can have given since the last copy

// The measure of work is one look at a record in the store's order; what else costs time is told in looks.
constexpr uint64_t work_of_look = 1;
constexpr uint64_t work_of_items = 8; // to take its text apart
constexpr size_t bytes_a_look = 64;   // of a reply
constexpr int looks_for_standing_max = 1000;
constexpr uint64_t set_bytes_max = 64 << 20;

bool passes(const Filter &filter, const Record &record, uint64_t &work) {
    if (!filter)
        return true;
    work += work_of_items + filter.work_of_record;
    const auto items = items_of(record.flex_text);
    return items && filter.passes(*items);
}

// As it may be stored and sent again: not empty, in the right form, no longer than the wire carries.
std::optional<Items> storable_items(const std::string &flex_text) {
    if (flex_text.empty() || flex_text.size() > RGY_WIRE_FLEX_MAX || flex_text.find('\n') != std::string::npos)
        return std::nullopt;
    return items_of(flex_text);
}

// All that an answer depends on; the numbers first, then the texts, of which the last one ends with the question.
void put_question(std::string &question, const Selection &selection, uint64_t cursor, const BatchLimits &limits) {
    const uint64_t numbers[] = {
        selection.db, cursor, limits.records_max, limits.bytes_max, selection.region.size(), selection.key.size()};
    question.assign(reinterpret_cast<const char *>(numbers), sizeof numbers);
    question.append(selection.region).append(selection.key).append(selection.value);
}

// A writer of a setting looks for the old value before it asks for the stamps. Another who came in between must send it
// back to look again, or its write would be lost; the stamps alone do not tell, since they are younger.
tbs_status_t status_of_standing(rgy_db_t db) {
    return db == RGY_DB_SITE_CONFIG ? TBS_ST_STALE_ID : TBS_ST_ALREADY_EXISTS;
}

bool is_null(const tbs_uuid_t &uuid) {
    constexpr tbs_uuid_t null = {};
    return memcmp(&uuid, &null, sizeof null) == 0;
}

} // namespace

std::string flex_text_of(const rgy_change_t &change) {
    return change.flex_text != nullptr ? change.flex_text : "";
}

size_t encoded_bytes(const Record &record) {
    const size_t padded = (record.flex_text.size() + word_bytes - 1) / word_bytes * word_bytes;
    return 2 * word_bytes + padded; // number, length, text
}

std::pair<Stamps, Batch> Registry::fetch_with_stamps(const Selection &selection, uint64_t cursor,
                                                     const BatchLimits &limits, const Filter &filter) {
    Batch batch;
    size_t bytes = 0;
    uint64_t last_seen = cursor;
    uint64_t work = 0;
    const auto cut = [&] {
        batch.cursor = last_seen;
        return false;
    };
    const Stamps stamps = store_.scan_with_stamps(selection, cursor, [&](uint64_t id, const Record *record) {
        if (work >= REGISTRY_WORK_MAX)
            return cut();
        work += work_of_look;
        if (record == nullptr || !passes(filter, *record, work)) {
            last_seen = id;
            return true;
        }
        const size_t more_bytes = encoded_bytes(*record);
        const bool fits = batch.records.size() < limits.records_max && bytes + more_bytes <= limits.bytes_max;
        if (!fits && !(batch.records.empty() && limits.records_max > 0))
            return cut();
        bytes += more_bytes;
        work += more_bytes / bytes_a_look;
        batch.records.push_back(*record);
        last_seen = id;
        return true;
    });
    return {stamps, std::move(batch)};
}

void RegistryMemory::follow(std::unique_ptr<StoreVersion> version) {
    version_ = std::move(version);
    known_ = {};
    answers_ = AnswerMemory(REGISTRY_ANSWERS_BYTES_MAX);
}

RegistryMemory::Known &RegistryMemory::known() {
    if (const uint64_t now = version(); now != known_.version)
        known_ = {now, {}, {}};
    return known_;
}

std::optional<RegistryView::Found> RegistryMemory::find(const Selection &selection, uint64_t cursor,
                                                        const BatchLimits &limits, const Filter &filter) {
    const auto stamps = stamps_of(selection.db);
    if (!stamps || filter || selection.key.empty())
        return std::nullopt;
    put_question(question_, selection, cursor, limits);
    auto batch = answers_.find(question_, known_.version);
    return batch != nullptr ? std::optional(Found{*stamps, std::move(batch)}) : std::nullopt;
}

void RegistryMemory::learn(uint64_t version, Learned learned) {
    if (version_ == nullptr || known().version != version)
        return;
    for (rgy_db_t db = 0; db < RGY_DB_ALL; ++db)
        if (learned.stamps[db])
            known_.stamps[db] = learned.stamps[db];
    if (learned.is_filled)
        known_.is_filled = learned.is_filled;
    if (learned.answer != nullptr)
        answers_.keep(std::move(learned.question), version, std::move(learned.answer));
}

Stamps Registry::stamps(rgy_db_t db) {
    const Stamps stamps = store_.stamps(db);
    if (learned_ != nullptr)
        learned_->stamps.at(db) = stamps;
    return stamps;
}

std::optional<RegistryView::Found> Registry::find(const Selection &selection, uint64_t cursor,
                                                  const BatchLimits &limits, const Filter &filter) {
    auto [stamps, batch] = fetch_with_stamps(selection, cursor, limits, filter);
    Found found = {stamps, std::make_shared<const Batch>(std::move(batch))};
    if (learned_ == nullptr)
        return found;
    learned_->stamps.at(selection.db) = stamps;
    if (!filter && !selection.key.empty()) {
        put_question(learned_->question, selection, cursor, limits);
        learned_->answer = found.batch;
    }
    return found;
}

tbs_status_t Registry::add(rgy_db_t db, const rgy_dtm_pair_t &stamps, const std::string &flex_text,
                           const Caller &caller) {
    if (!is_somebody(caller.credentials))
        return TBS_ST_NO_ACCESS;
    const auto items = storable_items(flex_text);
    if (!items)
        return TBS_ST_INVALID_ARG;
    switch (store_.add(db, stamps, identity_of(db, *items), flex_text, *items)) {
    case Store::AddResult::stale:
        return TBS_ST_STALE_ID;
    case Store::AddResult::exists:
        return status_of_standing(db);
    case Store::AddResult::added:
        break;
    }
    return TBS_ST_OK;
}

tbs_status_t Registry::remove(rgy_db_t db, uint64_t id, const Caller &caller) {
    if (!is_somebody(caller.credentials))
        return TBS_ST_NO_ACCESS;
    Record removed;
    return store_.remove(db, id, removed) ? TBS_ST_OK : TBS_ST_NOT_FOUND;
}

Registry::Outcome Registry::change(const rvzd_registry_change_req_t &request, const Caller &caller) {
    struct Refused {};
    if (!is_somebody(caller.credentials))
        return {TBS_ST_NO_ACCESS};
    if ((request.flags & RGY_CHANGE_MORE_TO_COME) != 0)
        return stage(request);
    Outcome outcome;
    try {
        store_.together([&] {
            make_all(request, outcome);
            if (outcome.status != TBS_ST_OK)
                throw Refused(); // and nothing of it is kept
        });
    } catch (const Refused &) {
        outcome = {outcome.status, outcome.failed};
    }
    if (!is_null(request.set))
        store_.forget_set(request.set);
    return outcome;
}

Registry::Outcome Registry::stage(const rvzd_registry_change_req_t &request) {
    if (is_null(request.set))
        return {TBS_ST_INVALID_ARG};
    const auto size = store_.size_of_set(request.set);
    if (request.before + static_cast<uint64_t>(request.count) > RGY_CHANGES_MAX || size.bytes > set_bytes_max) {
        store_.forget_set(request.set);
        return {TBS_ST_NO_MEMORY};
    }
    if (size.changes != request.before)
        return {TBS_ST_TRY_AGAIN};
    store_.add_to_set(request.set, {request.changes, static_cast<size_t>(request.count)});
    return {};
}

void Registry::make_all(const rvzd_registry_change_req_t &request, Outcome &outcome) {
    const auto db = static_cast<rgy_db_t>(request.db);
    const bool is_set = !is_null(request.set);
    const auto make_next = [&](uint64_t id, const std::string &text) {
        outcome.status = make(db, request.flags, id, text, outcome);
        outcome.failed += outcome.status == TBS_ST_OK ? 1 : 0;
        return outcome.status == TBS_ST_OK;
    };
    if ((request.flags & RGY_CHANGE_IF_UNCHANGED) != 0 && !is_same(store_.stamps(db).pair, request.dtm))
        outcome.status = TBS_ST_STALE_ID;
    else if (is_set && store_.size_of_set(request.set).changes != request.before)
        outcome.status = TBS_ST_TRY_AGAIN;
    else if (is_set)
        store_.each_of_set(request.set, make_next);
    for (int64_t i = 0; outcome.status == TBS_ST_OK && i < request.count; ++i)
        make_next(request.changes[i].entry_id, flex_text_of(request.changes[i]));
    if (outcome.status == TBS_ST_OK)
        outcome.failed = 0;
}

tbs_status_t Registry::make(rgy_db_t db, uint32_t flags, uint64_t id, const std::string &text, Outcome &outcome) {
    if (text.empty()) {
        Record removed;
        if (id == 0)
            return TBS_ST_INVALID_ARG;
        ++outcome.done.removed;
        return store_.remove(db, id, removed) ? TBS_ST_OK : TBS_ST_NOT_FOUND;
    }
    const auto items = storable_items(text);
    if (!items)
        return TBS_ST_INVALID_ARG;
    if (id == 0)
        return add_or_pass(db, flags, text, *items, outcome);
    ++outcome.done.changed;
    switch (store_.change(db, id, identity_of(db, *items), text, *items)) {
    case Store::ChangeResult::absent:
        return TBS_ST_NOT_FOUND;
    case Store::ChangeResult::exists:
        return TBS_ST_ALREADY_EXISTS;
    case Store::ChangeResult::changed:
        break;
    }
    return TBS_ST_OK;
}

tbs_status_t Registry::add_or_pass(rgy_db_t db, uint32_t flags, const std::string &text, const Items &items,
                                   Outcome &outcome) {
    if ((flags & RGY_CHANGE_PASS_STANDING) != 0 && stands(db, text, items)) {
        ++outcome.passed;
        return TBS_ST_OK;
    }
    ++outcome.done.added;
    const auto result = store_.add(db, store_.stamps(db).pair, identity_of(db, items), text, items);
    return result == Store::AddResult::added ? TBS_ST_OK : TBS_ST_ALREADY_EXISTS;
}

// The longest value is the one that fewest share, so few records are looked at.
bool Registry::stands(rgy_db_t db, const std::string &text, const Items &items) {
    const auto longest = std::max_element(items.begin(), items.end(), [](const auto &one, const auto &other) {
        return one.second.size() < other.second.size();
    });
    if (longest == items.end() || longest->first.empty())
        return false;
    bool is_found = false;
    int looks = 0;
    store_.scan({db, "", longest->first, longest->second}, 0, [&](uint64_t, const Record *record) {
        is_found = record != nullptr && record->flex_text == text;
        return !is_found && ++looks < looks_for_standing_max;
    });
    return is_found;
}

bool Registry::is_filled() {
    const bool is_filled = !store_.setting(origin_setting).empty();
    if (learned_ != nullptr)
        learned_->is_filled = is_filled;
    return is_filled;
}

void Registry::become_master() {
    store_.skip_numbers(numbers_of_former_master);
    store_.set_setting(origin_setting, origin_master);
}

tbs_status_t Registry::check_password(const std::string &password) {
    const std::string hash = store_.setting(password_setting);
    if (hash.empty())
        return TBS_ST_NOT_FOUND;
    return is_password(password, hash) ? TBS_ST_OK : TBS_ST_NO_ACCESS;
}

void Registry::set_password(const std::string &password) {
    store_.set_setting(password_setting, password.empty() ? "" : hash_of(password));
}

} // namespace velia::server
