// What the tests of the settings share: a world with a site's registry, host files and a user's profile.
#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <rvzd/client/rvzd_knob/knob.h>
#include <tests/bad_files.h>
#include <tests/unit/registry_clnt/registry_fixture.h>
#include <veliaxdr/rvzd_knob.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Settings of every sort.
enum : uint32_t {
    view_cache_size = 1,         // DSyH
    view_shareable_dos = 2,      // DS
    checkout_reserve_policy = 3, // DsyhU
    view_interop_text_mode = 4,  // DSyhU
    vault_imports = 9,           // DsYHu, at least 1
    retry_frequency = 12,        // DsYHu, 0 to 1440
    site_name = 13,              // DsYhu
    notify_email = 21,           // DsYHu
    lyfs_mnmax = 31,             // DsyH
    lyfs_acenabled = 49,         // DsyH
    nmaster_policy = 55,         // DsyhU
    server_group_lifetime = 57,  // DsyH
};

// The registry's database of settings behind the simulated wire, with stamps that each change moves.
class SiteConfig {
public:
    explicit SiteConfig(sim::Peer &peer) {
        peer.on(RVZD_PROC_RGY_GET_ENTRY, [this](const sim::Call &call) { return get(call); });
        peer.on(RVZD_PROC_RGY_GET_ID, [this](const sim::Call &) {
            const rvzd_registry_get_id_reply_t id = {{}, 3, stamps()};
            return sim::reply(xdr_rvzd_registry_get_id_reply_t, id);
        });
        peer.on(RVZD_PROC_RGY_ADD_ENTRY, [this](const sim::Call &call) { return add(call); });
        peer.on(RVZD_PROC_RGY_REMOVE_ENTRY, [this](const sim::Call &call) { return remove(call); });
    }

    void put(const std::string &text) {
        entries.emplace(next_id++, text);
        ++stamp;
    }
    void put(const std::string &name, const std::string &value) { put("-name=" + name + ";-value=" + value + ";"); }
    std::vector<std::string> texts() const {
        std::vector<std::string> all;
        for (const auto &[id, text] : entries)
            all.push_back(text);
        return all;
    }

    std::map<uint64_t, std::string> entries;
    uint64_t next_id = 1;
    uint8_t stamp = 1;
    std::function<void()> before_add;                                               // by another writer
    std::function<std::optional<tbs_status_t>(const std::string &text)> add_status; // in place of the work
    std::optional<tbs_status_t> remove_status;
    size_t adds = 0;

private:
    rgy_dtm_pair_t stamps() const { return stamps_of(stamp, 7); }

    sim::Answer get(const sim::Call &call) {
        auto request = call.decode(xdr_rvzd_registry_get_req_t);
        stg_free(request.region);
        EXPECT_EQ(request.db, RGY_DB_SITE_CONFIG);
        EXPECT_EQ(request.max_entries, 1);
        auto next = entries.upper_bound(request.cursor);
        rvzd_registry_get_reply_t reply = {{}, 3, stamps(), 0, 0, nullptr};
        rgy_svr_entry_t entry = {};
        if (next != entries.end()) {
            entry = {next->first, next->second.data()};
            reply.count = 1;
            reply.entries = &entry;
            reply.cursor = std::next(next) != entries.end() ? next->first : 0;
        }
        return sim::reply(xdr_rvzd_registry_get_reply_t, reply);
    }

    sim::Answer add(const sim::Call &call) {
        auto request = call.decode(xdr_rvzd_registry_add_req_t);
        const std::string text = request.flex_text;
        stg_free(request.flex_text);
        ++adds;
        EXPECT_EQ(request.db, RGY_DB_SITE_CONFIG);
        if (before_add)
            before_add();
        if (const auto status = add_status ? add_status(text) : std::nullopt)
            return refusal(*status);
        const auto now = stamps();
        if (!tbs_uuid_eq(&request.dtm.dtm, &now.dtm))
            return refusal(TBS_ST_STALE_ID);
        put(text);
        return refusal(TBS_ST_OK);
    }

    sim::Answer remove(const sim::Call &call) {
        const auto request = call.decode(xdr_rvzd_registry_remove_req_t);
        EXPECT_EQ(request.db, RGY_DB_SITE_CONFIG);
        if (remove_status)
            return refusal(*remove_status);
        ++stamp;
        return refusal(entries.erase(request.entry_id) > 0 ? TBS_ST_OK : TBS_ST_NOT_FOUND);
    }
};

class KnobTest : public RegistryTest {
protected:
    KnobTest() {
        world.write_file("host/config/rgy_hosts.conf", "alpha beta");
        std::filesystem::create_directories(world.root() + "/host/data/lyfsconfig");
        setenv("VELIA_PROFILE", (world.root() + "/profile").c_str(), 1);
        unsetenv("VELIA_LYFS_CONFIG");
    }
    ~KnobTest() override { EXPECT_EQ(velia::rvzd_knob::rvzd_knob_lock.depth, 0u); }

    void write_host(const std::string &name, const std::string &text) { world.write_file("host/config/" + name, text); }
    void write_profile(const std::string &text) { world.write_file("profile", text); }
    std::string host_path(const std::string &name) const { return world.root() + "/host/config/" + name; }

    static std::optional<std::string> contents(const std::string &path) {
        std::ifstream file(path, std::ios::binary);
        if (!file)
            return std::nullopt;
        return std::string(std::istreambuf_iterator<char>(file), {});
    }

    // The row of an id, for tests of rows that the catalogue does not have.
    static velia::rvzd_knob::Knob &row(uint32_t id) {
        using namespace velia::rvzd_knob;
        return *std::find_if(std::begin(rvzd_knobs), std::end(rvzd_knobs),
                             [&](const Knob &knob) { return knob.id == id; });
    }

    template <class... Arguments>
    static sim::Message told(int position, Arguments... arguments) {
        return message_of(IMSG_ERROR, _rvzd_knob_rvzd_msg_table, position, arguments...);
    }

    SiteConfig site{world.peer};
};

} // namespace
