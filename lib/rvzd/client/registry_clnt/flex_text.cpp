// Flex text: one line of items "name=value;" back to back, taken apart and put together.
#include <rvzd/client/registry_clnt/flex_text.h>

#include <algorithm>
#include <cstring>

#include <rvzd/client/registry_clnt/registry_clnt.h>
#include <support/strutl.h>

using namespace velia::registry_clnt;

namespace {

constexpr int32_t first_capacity = 1;

rgy_item_t *new_items(int32_t capacity) {
    return static_cast<rgy_item_t *>(stg_malloc(static_cast<size_t>(capacity) * sizeof(rgy_item_t)));
}

bool make_vector(rgy_flex_entry_t &flex) {
    flex = {0, first_capacity, new_items(first_capacity)};
    return flex.items != nullptr;
}

// Where the value ends that begins at `value`: at the semicolon of the first ";-", or at the one that ends the whole
// text. Null if there is neither. Other semicolons belong to the value.
char *end_of_value(char *value, char *end_of_text) {
    char *separator = strstr(value, ";-");
    if (separator != nullptr)
        return separator;
    return value < end_of_text && end_of_text[-1] == ';' ? end_of_text - 1 : nullptr;
}

bool append_copies(rgy_flex_entry_t &flex, const char *name, const char *value) {
    rgy_item_t &item = flex.items[flex.count];
    item = {stg_strdup(name), stg_strdup(value)};
    ++flex.count;
    return item.name != nullptr && item.value != nullptr;
}

// Takes the working copy apart, cutting it up on the way.
tbs_status_t take_items(char *text, rgy_flex_entry_t &flex) {
    char *end_of_text = text + strlen(text);
    for (char *name = text; name != end_of_text;) {
        char *equal_sign = strchr(name, '=');
        if (equal_sign == nullptr || !make_room(flex))
            return TBS_ST_INVALID_ARG;
        *equal_sign = '\0';
        char *value = equal_sign + 1;
        char *end = end_of_value(value, end_of_text);
        if (end == nullptr)
            return TBS_ST_INVALID_ARG;
        *end = '\0';
        if (!append_copies(flex, name, value))
            return TBS_ST_INVALID_ARG;
        name = end + 1;
    }
    return TBS_ST_OK;
}

// Writes the items behind one another; `text` holds RGY_FLEX_TEXT_SIZE bytes.
bool write_items(const rgy_flex_entry_t &flex, char *text) {
    size_t used = 0;
    text[0] = '\0';
    for (int32_t i = 0; i < flex.count; ++i) {
        const rgy_item_t &item = flex.items[i];
        if (rgy_validate_string(item.value) != TBS_ST_OK ||
            strutl_concat(text + used, RGY_FLEX_TEXT_SIZE - used, 4, item.name, "=", item.value, ";") != 0)
            return false;
        used += strlen(text + used);
    }
    return true;
}

// One status for every failure: a decision of this operation alone.
tbs_status_t gather(const rgy_flex_entry_t &flex, char *&out) {
    out = static_cast<char *>(stg_malloc(RGY_FLEX_TEXT_SIZE));
    if (out == nullptr)
        return TBS_ST_ERROR;
    if (write_items(flex, out))
        return TBS_ST_OK;
    stg_free(out);
    out = nullptr;
    return TBS_ST_ERROR;
}

} // namespace

bool velia::registry_clnt::make_room(rgy_flex_entry_t &flex) {
    if (flex.capacity > flex.count)
        return true;
    const int32_t capacity = std::max(flex.count + 1, flex.capacity * 2);
    rgy_item_t *items = new_items(capacity);
    if (items == nullptr)
        return false;
    std::copy_n(flex.items, flex.count, items);
    stg_free(flex.items);
    flex.items = items;
    flex.capacity = capacity;
    return true;
}

tbs_status_t velia::registry_clnt::expand(const char *text, rgy_flex_entry_t &out) {
    out = {};
    if (text == nullptr)
        return TBS_ST_INVALID_ARG;
    const bool has_vector = make_vector(out);
    char *working_copy = has_vector ? stg_strdup(text) : nullptr;
    const tbs_status_t status =
        working_copy != nullptr ? take_items(working_copy, out) : tbs_status_t{TBS_ST_NO_MEMORY};
    stg_free(working_copy);
    if (status != TBS_ST_OK)
        rgy_destroy_flex_entry(&out);
    return status;
}

tbs_status_t rgy_expand_flex_entry(const char *text, rgy_flex_entry_t *out) {
    if (out == nullptr)
        return TBS_ST_INVALID_ARG;
    *out = {};
    return all_or_nothing([&] { return expand(text, *out); }, [&] { rgy_destroy_flex_entry(out); });
}

tbs_status_t rgy_gather_flex_entry(const rgy_flex_entry_t *flex, char **out) {
    if (flex == nullptr || out == nullptr)
        return TBS_ST_ERROR;
    *out = nullptr;
    return all_or_nothing([&] { return gather(*flex, *out); },
                          [&] {
                              stg_free(*out);
                              *out = nullptr;
                          });
}

void rgy_destroy_flex_entry(rgy_flex_entry_t *flex) {
    if (flex == nullptr)
        return;
    velia::with_inhibit([&] {
        for (int32_t i = flex->count - 1; i >= 0; --i) {
            stg_free(flex->items[i].name);
            stg_free(flex->items[i].value);
        }
        stg_free(flex->items);
        *flex = {};
    });
}

rgy_item_t *rgy_find_item(const rgy_flex_entry_t *flex, const char *name) {
    if (flex == nullptr || name == nullptr)
        return nullptr;
    for (int32_t i = flex->count - 1; i >= 0; --i)
        if (strcmp(flex->items[i].name, name) == 0)
            return &flex->items[i];
    return nullptr;
}

tbs_status_t rgy_validate_string(const char *text) {
    return text == nullptr || strpbrk(text, ";\n") == nullptr ? TBS_ST_OK : TBS_ST_INVALID_ARG;
}
