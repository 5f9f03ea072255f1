// Flex text both ways. What expands goes together again as the same text, unless a value may not travel to the server;
// and what gathers comes apart as the same items.
#include <fuzz/harness.h>

#include <cstring>
#include <vector>

#include <support/stg.h>
#include <veliaxdr/rgy_entry.h>

namespace {

bool is_sendable(const rgy_flex_entry_t &flex, const std::string &text) {
    for (int32_t i = 0; i < flex.count; ++i)
        if (rgy_validate_string(flex.items[i].value) != TBS_ST_OK)
            return false;
    return text.size() < RGY_FLEX_TEXT_SIZE;
}

void expand_and_gather(const std::string &text) {
    rgy_flex_entry_t flex;
    const auto status = rgy_expand_flex_entry(text.c_str(), &flex);
    FUZZ_REQUIRE(status == TBS_ST_OK || (status == TBS_ST_INVALID_ARG && flex.count == 0 && flex.items == nullptr));
    if (status != TBS_ST_OK)
        return;
    FUZZ_REQUIRE(text.empty() == (flex.count == 0));
    for (int32_t i = 0; i < flex.count; ++i)
        FUZZ_REQUIRE(rgy_find_item(&flex, flex.items[i].name) >= &flex.items[i]);
    char *again = nullptr;
    const auto gathered = rgy_gather_flex_entry(&flex, &again);
    FUZZ_REQUIRE((gathered == TBS_ST_OK) == is_sendable(flex, text));
    FUZZ_REQUIRE(gathered == TBS_ST_OK ? text == again : again == nullptr);
    stg_free(again);
    rgy_destroy_flex_entry(&flex);
}

// Items from the lines of the input, by turns a name, which begins with a hyphen as every key does, and a value.
std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    size_t from = 0;
    for (size_t end; (end = text.find('\n', from)) != std::string::npos; from = end + 1)
        lines.push_back((lines.size() % 2 == 0 ? "-" : "") + text.substr(from, end - from));
    return lines;
}

void gather_and_expand(const std::string &text) {
    auto lines = lines_of(text);
    std::vector<rgy_item_t> items;
    for (size_t i = 0; i + 1 < lines.size(); i += 2)
        if (lines[i].find('=') == std::string::npos)
            items.push_back({lines[i].data(), lines[i + 1].data()});
    const rgy_flex_entry_t made = {static_cast<int32_t>(items.size()), 0, items.data()};
    char *gathered = nullptr;
    if (rgy_gather_flex_entry(&made, &gathered) != TBS_ST_OK)
        return;
    rgy_flex_entry_t flex;
    FUZZ_REQUIRE(rgy_expand_flex_entry(gathered, &flex) == TBS_ST_OK);
    FUZZ_REQUIRE(flex.count == made.count);
    for (int32_t i = 0; i < flex.count; ++i)
        FUZZ_REQUIRE(strcmp(flex.items[i].name, made.items[i].name) == 0 &&
                     strcmp(flex.items[i].value, made.items[i].value) == 0);
    rgy_destroy_flex_entry(&flex);
    stg_free(gathered);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string text(reinterpret_cast<const char *>(data), size);
    text = text.substr(0, text.find('\0'));
    expand_and_gather(text);
    gather_and_expand(text);
    return 0;
}
