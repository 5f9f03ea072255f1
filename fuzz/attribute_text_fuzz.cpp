// Attribute text: a name, a newline, and the text. The answer is that of the C library's scanning of each word.
#include <fuzz/harness.h>

#include <cstring>
#include <optional>

#include <veliaxdr/rgy_entry.h>

namespace {

constexpr size_t length_bound = 1024;

struct Answer {
    tbs_status_t status;
    std::optional<std::string> value;
};

// How one word is scanned; nothing if it is not the wanted one.
std::optional<Answer> scan_word(const char *word, const std::string &wanted) {
    std::string name(strlen(word) + 1, '\0');
    std::string value(strlen(word) + 1, '\0');
    int start = 0;
    sscanf(word, " %n", &start);
    const int fields = sscanf(word + start, "%[^=;,] = %[^;,]", name.data(), value.data());
    name.resize(strlen(name.c_str()));
    value.resize(strlen(value.c_str()));
    if (name.size() >= length_bound || value.size() >= length_bound)
        return Answer{TBS_ST_INVALID_ARG, std::nullopt};
    if (fields < 1 || name != wanted)
        return std::nullopt;
    return Answer{TBS_ST_OK, fields == 2 ? std::optional(value) : std::nullopt};
}

Answer expected_answer(std::string text, const std::string &wanted) {
    char *place = nullptr;
    for (char *word = strtok_r(text.data(), ",", &place); word != nullptr; word = strtok_r(nullptr, ",", &place))
        if (const auto answer = scan_word(word, wanted))
            return *answer;
    return {TBS_ST_NOT_FOUND, std::nullopt};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string input(reinterpret_cast<const char *>(data), size);
    input = input.substr(0, input.find('\0'));
    const size_t line_end = input.find('\n');
    const std::string name = input.substr(0, line_end);
    std::string text = line_end != std::string::npos ? input.substr(line_end + 1) : "";
    const Answer expected = expected_answer(text.c_str(), name);
    char *value = nullptr;
    FUZZ_REQUIRE(rgy_find_attrval(text.data(), name.c_str(), &value) == expected.status);
    FUZZ_REQUIRE((value != nullptr) == expected.value.has_value());
    FUZZ_REQUIRE(value == nullptr || *expected.value == value);
    return 0;
}
