#include <server/registry/term.h>

#include <algorithm>
#include <charconv>

namespace velia::server {

uint64_t term_of_text(const std::string &text) {
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? number : 0;
}

Term term_of(Store &store) {
    return {term_of_text(store.setting(term_setting)), store.setting(term_host_setting),
            term_of_text(store.setting(heard_term_setting)), store.setting(heard_host_setting)};
}

void take_term(Store &store, uint64_t number, const std::string &host) {
    const Term known = term_of(store);
    if (known.number != number)
        store.set_setting(term_setting, std::to_string(number));
    if (known.host != host)
        store.set_setting(term_host_setting, host);
    if (known.heard != 0 && known.heard <= number) {
        store.set_setting(heard_term_setting, "");
        store.set_setting(heard_host_setting, "");
    }
}

void begin_term(Store &store, const std::string &own_name) {
    const Term known = term_of(store);
    store.together([&] { take_term(store, std::max(known.number, known.heard) + 1, own_name); });
}

bool hear_of_term(Store &store, uint64_t number, const std::string &host) {
    const Term known = term_of(store);
    if (number <= std::max(known.number, known.heard))
        return false;
    store.together([&] {
        store.set_setting(heard_term_setting, std::to_string(number));
        store.set_setting(heard_host_setting, host);
    });
    return true;
}

} // namespace velia::server
