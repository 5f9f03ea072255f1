// Records what is printed instead of letting it out.
#pragma once

#include <string>
#include <vector>

#include <support/imsg.h>

struct PrintedMessage {
    int severity;
    std::string subsystem;
    const imsg_table_t *table;
    int index;
    std::string text;

    bool operator==(const PrintedMessage &) const = default;
};

class MessageRecorder {
public:
    MessageRecorder() {
        imsg_set_sink(
            [](void *self, int severity, const char *subsystem, const imsg_table_t *table, int index,
               const char *text) {
                static_cast<MessageRecorder *>(self)->messages.push_back(
                    {severity, subsystem != nullptr ? subsystem : "", table, index, text});
            },
            this);
    }
    ~MessageRecorder() { imsg_set_sink(nullptr, nullptr); }
    MessageRecorder(const MessageRecorder &) = delete;
    MessageRecorder &operator=(const MessageRecorder &) = delete;

    std::vector<PrintedMessage> messages;
};
