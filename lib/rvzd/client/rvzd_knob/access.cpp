// What programs ask for: the value in force, and the values of single places, by type.
//
// One road each reads, and each writes; the types differ in what they make of a text, which is the caller's lambda.
#include <cstdio>
#include <iterator>

#include <rvzd/client/rvzd_knob/knob.h>
#include <support/stg.h>
#include <support/strutl.h>

using namespace velia;
using namespace velia::rvzd_knob;

namespace {

constexpr rvzd_knoblet_kind_t before_all = -1;
constexpr size_t decimal_size = 12; // with sign and terminator

// The next place in the order of precedence; -1, and no slot, behind the last.
rvzd_knoblet_kind_t rvzd_knoblet_next(const Knob &knob, rvzd_knoblet_kind_t previous, const Knoblet *&slot) {
    rvzd_knoblet_kind_t kind = previous == before_all ? KNOBLET_KIND_COUNT : previous;
    while (--kind >= 0) {
        slot = &knob.knoblets[kind];
        if (slot->present != 0)
            return kind;
    }
    slot = nullptr;
    return before_all;
}

// Gives the place's text to `use`, whose status is the result. A default is used where it stands. A file is read in no
// time, so that a raise may wait for the end, which costs less than a frame.
template <class Use>
tbs_status_t with_text(const Knob &knob, const Knoblet &slot, const char *host, Use &&use) {
    if (slot.kind == KNOBLET_DEFAULT)
        return use(slot.default_spelling);
    char *text = nullptr;
    const auto read_and_use = [&] {
        const auto status = read_knoblet(knob, slot, host, &text);
        return status == TBS_ST_OK ? use(text) : status;
    };
    const auto give_back = [&] {
        with_inhibit([&] {
            stg_free(text);
            text = nullptr;
        });
    };
    if (slot.kind != KNOBLET_HOST)
        return with_release(read_and_use, give_back);
    return with_inhibit([&] {
        const auto status = read_and_use();
        give_back();
        return status;
    });
}

// A place without a value gives way to the next; any other failure is the result.
template <class Use>
tbs_status_t use_value_in_force(const Knob &knob, const char *host, Use &&use) {
    const Knoblet *slot = nullptr;
    for (auto kind = rvzd_knoblet_next(knob, before_all, slot); slot != nullptr;
         kind = rvzd_knoblet_next(knob, kind, slot)) {
        const auto status = with_text(knob, *slot, host, use);
        if (status != TBS_ST_NOT_FOUND)
            return status;
    }
    print_error(KNOB_MSG_NO_DEFAULT, name_of(knob));
    return TBS_ST_ERROR;
}

template <class Use>
tbs_status_t get_in_force(uint32_t id, rvzd_knob_type_t type, const char *host, Use &&use) {
    return with_knob(id, [&](const Knob &knob) {
        const auto status = check_type(knob, type);
        return status == TBS_ST_OK ? use_value_in_force(knob, host, [&](const char *text) { return use(knob, text); })
                                   : status;
    });
}

// The slot, if the setting says that it has such a knoblet.
tbs_status_t check_slot(const Knob &knob, rvzd_knoblet_kind_t kind, const Knoblet *&slot) {
    slot = slot_of(knob, kind);
    if (slot == nullptr || slot->kind != kind) {
        print_error(KNOB_MSG_INVALID_KNOBLET, name_of(knob), kind);
        return TBS_ST_ERROR;
    }
    if (slot->present == 0) {
        print_error(KNOB_MSG_NO_SUCH_KNOBLET, name_of(knob), kind);
        return TBS_ST_ERROR;
    }
    return TBS_ST_OK;
}

template <class Use>
tbs_status_t use_slot_value(const Knob &knob, rvzd_knoblet_kind_t kind, const char *host, tbs_boolean_t *found,
                            Use &&use) {
    const Knoblet *slot = nullptr;
    auto status = check_slot(knob, kind, slot);
    if (status != TBS_ST_OK)
        return status;
    status = with_text(knob, *slot, host, [&](const char *text) { return use(knob, text); });
    *found = status == TBS_ST_OK ? 1 : 0;
    return status == TBS_ST_NOT_FOUND ? tbs_status_t{TBS_ST_OK} : status;
}

constexpr rvzd_knob_type_t any_type = -1;

template <class Use>
tbs_status_t get_from_slot(uint32_t id, rvzd_knob_type_t type, rvzd_knoblet_kind_t kind, const char *host,
                           tbs_boolean_t *found, Use &&use) {
    *found = 0;
    const auto get = [&](const Knob &knob) {
        const auto status = type == any_type ? tbs_status_t{TBS_ST_OK} : check_type(knob, type);
        return status == TBS_ST_OK ? use_slot_value(knob, kind, host, found, use) : status;
    };
    return kind == KNOBLET_DEFAULT ? with_knob_alone(id, get) : with_knob(id, get);
}

// `check` says whether the setting takes the value.
template <class Check>
tbs_status_t set_slot(uint32_t id, rvzd_knob_type_t type, rvzd_knoblet_kind_t kind, const char *host, const char *text,
                      Check &&check) {
    return with_knob(id, [&](const Knob &knob) {
        const Knoblet *slot = nullptr;
        auto status = check_type(knob, type);
        if (status == TBS_ST_OK)
            status = check_slot(knob, kind, slot);
        if (status == TBS_ST_OK)
            status = check(knob);
        return status == TBS_ST_OK ? write_knoblet(knob, *slot, host, text) : status;
    });
}

tbs_status_t check_spelling(const Knob &knob, const char *text) {
    int32_t value = 0;
    switch (knob.type) {
    case KNOB_BOOLEAN:
        return boolean_of_spelling(knob, text, &value);
    case KNOB_INTEGER: {
        const auto status = integer_of_spelling(knob, text, &value);
        return status == TBS_ST_OK ? check_integer_range(knob, value) : status;
    }
    case KNOB_STRING:
        return check_string_range(knob, text);
    default:
        print_error(KNOB_MSG_INVALID_TYPE, name_of(knob), knob.type);
        return TBS_ST_ERROR;
    }
}

// By the slot as it is, whatever the setting says of it.
tbs_status_t write_slot_of_kind(const Knob &knob, rvzd_knoblet_kind_t kind, const char *host, const char *text) {
    const Knoblet none = {0, kind, nullptr, nullptr};
    const Knoblet *slot = slot_of(knob, kind);
    return write_knoblet(knob, slot != nullptr ? *slot : none, host, text);
}

// Into a caller's buffer of `size` bytes.
auto copy_to(size_t size, char *buffer) {
    return [=](const Knob &knob, const char *text) -> tbs_status_t {
        return strutl_cpy_buf(buffer, text, size) == 0 ? tbs_status_t{TBS_ST_OK} : invalid_value(knob, text);
    };
}

// Where a knoblet keeps its value, in words.
tbs_status_t describe_origin(const Knob &knob, const Knoblet &slot, const char *host, size_t size, char *buffer) {
    char path[TBS_PATH_SIZE] = "";
    const char *words = path;
    tbs_status_t status = TBS_ST_OK;
    if (slot.kind == KNOBLET_HOST)
        status = host_file_path(knob, slot, path);
    if (slot.kind == KNOBLET_USER)
        words = slot.detail != nullptr ? slot.detail : "";
    if (slot.kind == KNOBLET_SITE || slot.kind == KNOBLET_SYNC_SITE) {
        uint64_t entry_id = 0;
        status = find_site_entry(knob, host, &entry_id);
        snprintf(path, sizeof path, "%llu", static_cast<unsigned long long>(entry_id));
    }
    if (status != TBS_ST_OK)
        return status;
    return strutl_cpy_buf(buffer, words, size) == 0 ? TBS_ST_OK : TBS_ST_INVALID_ARG;
}

} // namespace

tbs_status_t velia::rvzd_knob::read_knoblet(const Knob &knob, const Knoblet &slot, const char *host, char **text) {
    switch (slot.kind) {
    case KNOBLET_SITE:
    case KNOBLET_SYNC_SITE:
        return rvzd_knoblet_p_get_site_value_as_string(knob, host, text);
    case KNOBLET_HOST:
        return rvzd_knoblet_p_get_host_value_as_string(knob, slot, text);
    case KNOBLET_USER:
        return rvzd_knoblet_p_get_user_value_as_string(knob, slot.detail, text);
    default:
        print_error(KNOB_MSG_UNKNOWN_KIND, slot.kind);
        return TBS_ST_ERROR;
    }
}

tbs_status_t velia::rvzd_knob::write_knoblet(const Knob &knob, const Knoblet &slot, const char *host,
                                             const char *text) {
    switch (slot.kind) {
    case KNOBLET_DEFAULT:
        print_error(KNOB_MSG_DEFAULT_UPDATED, name_of(knob));
        return TBS_ST_ERROR;
    case KNOBLET_SITE:
    case KNOBLET_SYNC_SITE:
        return rvzd_knoblet_p_set_site_value_as_string(knob, host, text);
    case KNOBLET_HOST:
        return rvzd_knoblet_p_set_host_value_as_string(knob, slot, text);
    case KNOBLET_USER:
        return TBS_ST_ERROR;
    default:
        print_error(KNOB_MSG_UNKNOWN_KIND, slot.kind);
        return TBS_ST_ERROR;
    }
}

tbs_status_t rvzd_knob_get_boolean(uint32_t id, const char *host, tbs_boolean_t *value) {
    return get_in_force(id, KNOB_BOOLEAN, host,
                        [&](const Knob &knob, const char *text) { return boolean_of_spelling(knob, text, value); });
}

tbs_status_t rvzd_knob_get_integer(uint32_t id, const char *host, int32_t *value) {
    return get_in_force(id, KNOB_INTEGER, host,
                        [&](const Knob &knob, const char *text) { return integer_of_spelling(knob, text, value); });
}

tbs_status_t rvzd_knob_get_string(uint32_t id, const char *host, size_t size, char *buffer) {
    return get_in_force(id, KNOB_STRING, host, copy_to(size, buffer));
}

// A place that has a value but no text for it gives way to the next, here only.
tbs_status_t rvzd_knob_get_value_spelling(uint32_t id, const char *host, size_t size, char *buffer) {
    if (size > 0)
        *buffer = '\0';
    const auto copy = copy_to(size, buffer);
    return get_in_force(id, KNOB_STRING, host, [&](const Knob &knob, const char *text) {
        return text != nullptr ? copy(knob, text) : tbs_status_t{TBS_ST_NOT_FOUND};
    });
}

tbs_status_t rvzd_knoblet_get_boolean(uint32_t id, rvzd_knoblet_kind_t kind, const char *host, tbs_boolean_t *found,
                                      tbs_boolean_t *value) {
    return get_from_slot(id, KNOB_BOOLEAN, kind, host, found,
                         [&](const Knob &knob, const char *text) { return boolean_of_spelling(knob, text, value); });
}

tbs_status_t rvzd_knoblet_get_integer(uint32_t id, rvzd_knoblet_kind_t kind, const char *host, tbs_boolean_t *found,
                                      int32_t *value) {
    return get_from_slot(id, KNOB_INTEGER, kind, host, found,
                         [&](const Knob &knob, const char *text) { return integer_of_spelling(knob, text, value); });
}

tbs_status_t rvzd_knoblet_get_string(uint32_t id, rvzd_knoblet_kind_t kind, const char *host, tbs_boolean_t *found,
                                     size_t size, char *buffer) {
    return get_from_slot(id, KNOB_STRING, kind, host, found, copy_to(size, buffer));
}

tbs_status_t rvzd_knoblet_get_value_spelling(uint32_t id, rvzd_knoblet_kind_t kind, const char *host,
                                             tbs_boolean_t *found, size_t size, char *buffer) {
    return get_from_slot(id, any_type, kind, host, found, copy_to(size, buffer));
}

tbs_status_t rvzd_knoblet_set_boolean(uint32_t id, rvzd_knoblet_kind_t kind, const char *host, tbs_boolean_t value) {
    return set_slot(id, KNOB_BOOLEAN, kind, host, value != 0 ? "TRUE" : "FALSE",
                    [](const Knob & /*knob*/) { return tbs_status_t{TBS_ST_OK}; });
}

tbs_status_t rvzd_knoblet_set_integer(uint32_t id, rvzd_knoblet_kind_t kind, const char *host, int32_t value) {
    char decimal[decimal_size];
    snprintf(decimal, sizeof decimal, "%d", value);
    return set_slot(id, KNOB_INTEGER, kind, host, decimal,
                    [&](const Knob &knob) { return check_integer_range(knob, value); });
}

// A null would mean "no value from now on" to the places.
tbs_status_t rvzd_knoblet_set_string(uint32_t id, rvzd_knoblet_kind_t kind, const char *host, const char *text) {
    return set_slot(id, KNOB_STRING, kind, host, text, [&](const Knob &knob) {
        return text != nullptr ? check_string_range(knob, text) : tbs_status_t{TBS_ST_INVALID_ARG};
    });
}

tbs_status_t rvzd_knoblet_set_value_from_spelling(uint32_t id, rvzd_knoblet_kind_t kind, const char *host,
                                                  const char *text) {
    return with_knob(id, [&](const Knob &knob) {
        if (text == nullptr)
            return invalid_value(knob, text);
        const auto status = check_spelling(knob, text);
        return status == TBS_ST_OK ? write_slot_of_kind(knob, kind, host, text) : status;
    });
}

tbs_status_t rvzd_knoblet_unset_value(uint32_t id, rvzd_knoblet_kind_t kind, const char *host) {
    return with_knob(id, [&](const Knob &knob) { return write_slot_of_kind(knob, kind, host, nullptr); });
}

tbs_status_t rvzd_knoblet_origin(uint32_t id, rvzd_knoblet_kind_t kind, const char *host, size_t size, char *buffer) {
    return with_knob(id, [&](const Knob &knob) {
        const Knoblet *slot = nullptr;
        const auto status = check_slot(knob, kind, slot);
        return status == TBS_ST_OK ? describe_origin(knob, *slot, host, size, buffer) : status;
    });
}

tbs_status_t adm_host_knoblet_set_install_default(uint32_t id, const char *host) {
    return with_lock(knob_lock, [&] { return rvzd_knoblet_unset_value(id, KNOBLET_HOST, host); });
}

tbs_status_t adm_host_knoblet_get_install_default_boolean(uint32_t /*id*/, const char * /*host*/,
                                                          tbs_boolean_t * /*value*/) {
    return TBS_ST_NOT_FOUND;
}

tbs_status_t adm_host_knoblet_get_install_default_integer(uint32_t /*id*/, const char * /*host*/, int32_t * /*value*/) {
    return TBS_ST_NOT_FOUND;
}
