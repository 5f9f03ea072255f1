// The support layer's own message table. Positions without a text are kept for numbers that nobody prints.
#include <support/tbs.h>

namespace {

constexpr size_t message_count = TBS_MSG_NO_OPTION_HANDLER + 1;

struct Texts {
    const char *rows[message_count];
};

struct Numbers {
    uint16_t rows[message_count];
};

constexpr Texts make_texts() {
    Texts texts = {};
    for (const char *&row : texts.rows)
        row = "";
    texts.rows[TBS_MSG_TEXT] = "%s";
    texts.rows[TBS_MSG_LINE] = "%s\n";
    texts.rows[TBS_MSG_FURTHER_LINE] = "%s\n";
    texts.rows[TBS_MSG_CANNOT_OPEN] = "Unable to open file \"%s\": %s.\n";
    texts.rows[TBS_MSG_CANNOT_READ] = "Error reading from \"%s\": %s.\n";
    texts.rows[TBS_MSG_INTERNAL_ERROR] = "Internal error.\n";
    texts.rows[TBS_MSG_OPERATION_FAILED] = "Operation \"%s\" failed: %s.\n";
    texts.rows[TBS_MSG_HOST_OPERATION_FAILED] = "Operation \"%s\" on host \"%s\" failed: %s.\n";
    texts.rows[TBS_MSG_NO_OPTION_HANDLER] = "Internal error: an option was recognized but has no handler.\n";
    return texts;
}

constexpr Numbers make_numbers() {
    Numbers numbers = {};
    for (uint16_t i = 0; i < message_count; ++i)
        numbers.rows[i] = static_cast<uint16_t>(i + 1);
    return numbers;
}

constexpr Texts texts = make_texts();
constexpr Numbers numbers = make_numbers();

} // namespace

const imsg_table_t _tbs_cmsg_tbs_msg_table = {"tbs_lib", "tbs/cmsg", 1, message_count, texts.rows, numbers.rows};
