#include <server/registry/look.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <strings.h>

#include <server/registry/copy.h>
#include <server/registry/service.h>
#include <server/registry/term.h>
#include <support/imsg.h>
#include <support/ks.h>
#include <support/sysutl.h>
#include <veliaxdr/rgy_local.h>
#include <veliaxdr/rvzd_daemon.h>
#include <veliaxdr/rvzd_handle.h>

namespace velia::server {

namespace {

constexpr const char *list_separators = " \t\r\n,;";
constexpr size_t hosts_max = 64;
constexpr int64_t answer_ms = 1000;

struct FreeHandle {
    void operator()(rvzd_handle_t *handle) const { rvzd_free_handle(handle); }
};

// What a host says; released at the end.
class Answer {
public:
    Answer(const std::string &host, const tbs_uuid_t &registry, const Term &own) {
        ks_set_deadline(answer_ms);
        rvzd_handle_t *handle = nullptr;
        constexpr int is_quiet = 1;
        if (rvzd_get_handle_prim_proto(host.c_str(), RVZD_PROTOCOL_UDP, 0, is_quiet, &handle) != TBS_ST_OK)
            return;
        handle_.reset(handle);
        is_there_ = rvzd_registry_state(handle, &registry, own.number, own.host.c_str(), &state_) == TBS_ST_OK;
    }
    ~Answer() { rvzd_registry_state_free(&state_); }
    Answer(const Answer &) = delete;
    Answer &operator=(const Answer &) = delete;

    const rvzd_registry_state_reply_t *state() const { return is_there_ ? &state_ : nullptr; }

    // One that is in a database has several hosts, each of them a master; and this host may have several names.
    bool is_of(const Stamps &own) const {
        rgy_dtm_pair_t pair = {};
        tbs_uuid_t registry = {};
        tbs_uuid_t copy = {};
        return rvzd_rgy_get_dtm(handle_.get(), 0, RGY_PROTOCOL_VERSION, &pair, &registry, &copy) == TBS_ST_OK &&
               tbs_uuid_eq(&registry, &own.registry) != 0 && tbs_uuid_eq(&copy, &own.copy) != 0;
    }

private:
    std::unique_ptr<rvzd_handle_t, FreeHandle> handle_;
    rvzd_registry_state_reply_t state_ = {};
    bool is_there_ = false;
};

// Of another registry nothing matters here.
void hear(Store &store, const Answer &answer, Serving serving) {
    const auto &state = *answer.state();
    const Stamps own = store.stamps(0);
    if (tbs_uuid_eq(&state.registry, &own.registry) == 0)
        return;
    const Term known = term_of(store);
    if (state.takes_updates && state.term == known.number && !known.is_superseded() &&
        (serving == Serving::elsewhere || !answer.is_of(own)))
        throw CopyError("host \"" + std::string(state.master) + "\" takes updates, too, under the same term " +
                        std::to_string(state.term) + ": demote one of both");
    hear_of_term(store, state.term, state.master);
    hear_of_term(store, state.heard_term, state.heard_host);
}

} // namespace

void look_at_site(Store &store, Serving serving) {
    const Term own = term_of(store);
    const tbs_uuid_t registry = store.stamps(0).registry;
    for (const std::string &host : other_hosts(&store)) {
        const Answer answer(host, registry, own);
        if (answer.state() != nullptr)
            hear(store, answer, serving);
    }
}

std::vector<std::string> hosts_in(const std::string &list) {
    std::vector<std::string> hosts;
    for (size_t begin = 0; (begin = list.find_first_not_of(list_separators, begin)) != std::string::npos;) {
        const size_t end = std::min(list.find_first_of(list_separators, begin), list.size());
        hosts.push_back(list.substr(begin, end - begin));
        begin = end;
    }
    return hosts;
}

bool is_this_host(const std::string &host) {
    return strcasecmp(host.c_str(), sysutl_myhostname()) == 0;
}

std::vector<std::string> other_hosts(Store *store) {
    std::array<char, RVZD_HOST_NAME_MAX + 1> master = {};
    std::array<char, RVZD_HOST_NAME_MAX + 1> backup = {};
    size_t lengths[2];
    registry_prop_get_hostnames_local(master.size(), backup.size(), &lengths[0], &lengths[1], master.data(),
                                      backup.data());
    std::string list = std::string(master.data()) + " " + backup.data();
    if (store != nullptr)
        list += " " + store->setting("backup") + " " + store->setting(former_master_setting);
    std::vector<std::string> others;
    for (const std::string &host : hosts_in(list)) {
        const bool is_known = std::any_of(others.begin(), others.end(), [&](const std::string &other) {
            return strcasecmp(other.c_str(), host.c_str()) == 0;
        });
        if (!is_known && !is_this_host(host) && host.size() <= RVZD_HOST_NAME_MAX && others.size() < hosts_max)
            others.push_back(host);
    }
    return others;
}

int run_look() {
    try {
        end_with_daemon();
        bool is_new = false;
        look_at_site(*open_registry(is_new), Serving::here);
        return EXIT_SUCCESS;
    } catch (const CopyError &error) {
        imsg_print(IMSG_ERROR, "The site has two masters: %s\n", IMSG_FORMAT, error.what());
    } catch (const StoreError &error) {
        imsg_print(IMSG_ERROR, "The other hosts of the site were not looked at: %s\n", IMSG_FORMAT, error.what());
    }
    return EXIT_FAILURE;
}

} // namespace velia::server
