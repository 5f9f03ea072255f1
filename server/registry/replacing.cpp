#include <server/registry/replacing.h>

#include <vector>

namespace velia::server {

namespace {

// Takes out of `contents` what stands here as it does there; the result is what stands here only.
std::vector<uint64_t> take_kept(Store &store, rgy_db_t db, Contents &contents) {
    std::vector<uint64_t> gone;
    store.scan({db, "", "", ""}, 0, [&](uint64_t id, const Record *record) {
        const auto found = contents.find(id);
        if (found != contents.end() && found->second == record->flex_text)
            contents.erase(found);
        else
            gone.push_back(id);
        return true;
    });
    return gone;
}

// A record under the number that it has elsewhere. In order of the numbers a former bearer of its identity is an older
// record.
void put(RecordKeeper &keeper, rgy_db_t db, uint64_t id, const std::string &flex_text) {
    const auto items = items_of(flex_text);
    if (!items)
        throw StoreError("a malformed record: " + flex_text);
    const std::string identity = identity_of(db, *items);
    const auto former = identity.empty() ? std::nullopt : keeper.bearer_of(db, identity);
    if (former && *former > id)
        return;
    if (former)
        keeper.erase(db, *former);
    keeper.put(db, id, identity, flex_text, *items);
}

} // namespace

void make_like(Store &store, RecordKeeper &keeper, rgy_db_t db, Contents contents) {
    for (const uint64_t id : take_kept(store, db, contents))
        keeper.erase(db, id);
    for (const auto &[id, text] : contents)
        put(keeper, db, id, text);
}

} // namespace velia::server
