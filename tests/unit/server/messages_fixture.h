// Messages that the daemon prints, taken instead of printed.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <server/messages.h>
#include <support/imsg.h>

namespace server_tests {

struct Message {
    int severity;
    int position; // in the broker's table
    std::string text;

    bool operator==(const Message &) const = default;
};

inline void PrintTo(const Message &message, std::ostream *out) {
    *out << "severity " << message.severity << ", row " << message.position << ": \"" << message.text << '"';
}

// A row of the broker's table with its text made from these arguments.
inline Message row(int severity, int position, ...) {
    char text[4096];
    va_list arguments;
    va_start(arguments, position);
    vsnprintf(text, sizeof text, _rvzd_rvzd_msg_table.texts[position], arguments);
    va_end(arguments);
    return {severity, position, text};
}

class MessagesTest : public testing::Test {
protected:
    MessagesTest() { imsg_set_sink(take, this); }
    ~MessagesTest() override { imsg_set_sink(nullptr, nullptr); }

    // Those since the last time.
    std::vector<Message> messages() { return std::exchange(messages_, {}); }

private:
    static void take(void *context, int severity, const char *, const imsg_table_t *table, int position,
                     const char *text) {
        EXPECT_EQ(table, &_rvzd_rvzd_msg_table);
        static_cast<MessagesTest *>(context)->messages_.push_back({severity, position, text});
    }

    std::vector<Message> messages_;
};

} // namespace server_tests
