// All messages go through the support layer's printer; in JSON its sink makes objects of them. What only the caller of
// a failure knows, its status and host, is handed to the sink beside the text.
#include <cli/messages.h>

#include <array>
#include <cstdarg>
#include <iostream>
#include <vector>

#include <cli/output.h>
#include <support/imsg.h>

namespace velia::cli {

namespace {

struct StatusName {
    tbs_status_t status;
    const char *name;
};

constexpr std::array<StatusName, 16> status_names = {{{TBS_ST_OK, "OK"},
                                                      {TBS_ST_ERROR, "ERROR"},
                                                      {TBS_ST_NOT_FOUND, "NOT_FOUND"},
                                                      {TBS_ST_RPC_FAILED, "RPC_FAILED"},
                                                      {TBS_ST_ALREADY_EXISTS, "ALREADY_EXISTS"},
                                                      {TBS_ST_UNSUPPORTED, "UNSUPPORTED"},
                                                      {TBS_ST_STALE_ID, "STALE_ID"},
                                                      {TBS_ST_NO_SERVER, "NO_SERVER"},
                                                      {TBS_ST_TRY_AGAIN, "TRY_AGAIN"},
                                                      {TBS_ST_NO_PORT, "NO_PORT"},
                                                      {TBS_ST_NOT_SET, "NOT_SET"},
                                                      {TBS_ST_NO_MEMORY, "NO_MEMORY"},
                                                      {TBS_ST_NO_ACCESS, "NO_ACCESS"},
                                                      {TBS_ST_INVALID_ARG, "INVALID_ARG"},
                                                      {TBS_ST_NO_STORAGE, "NO_STORAGE"},
                                                      {TBS_ST_NAME_TOO_LONG, "NAME_TOO_LONG"}}};

struct Message {
    int severity;
    std::string text;
};

struct Failure {
    tbs_status_t status = TBS_ST_OK; // of none
    std::string host;
    std::vector<Message> *until_it_is_known = nullptr; // messages that wait for the status
};

// That is being told. Messages come until the very end of the process, when no object of this thread is left.
thread_local const Failure *current = nullptr;
bool in_json = false;

const char *name_of_severity(int severity) {
    switch (severity) {
    case IMSG_WARNING:
        return "warning";
    case IMSG_ERROR:
    case IMSG_CONTINUATION:
        return "error";
    case IMSG_TRACE:
        return "trace";
    default:
        return "progress";
    }
}

std::string json_of_status(tbs_status_t status) {
    if (status == TBS_ST_OK)
        return "null";
    return R"({"name":)" + json_text(name_of_status(status)) + R"(,"number":)" + std::to_string(status) + "}";
}

std::string without_line_feeds(std::string text) {
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

// One write a message, so that those of several threads do not mix.
void write_object(void * /*context*/, int severity, const char * /*subsystem*/, const imsg_table_t * /*table*/,
                  int /*index*/, const char *text) {
    if (current != nullptr && current->until_it_is_known != nullptr) {
        current->until_it_is_known->push_back({severity, text});
        return;
    }
    const bool has_host = current != nullptr && !current->host.empty();
    const std::string host = has_host ? json_text(current->host) : "null";
    const tbs_status_t status = current != nullptr ? current->status : tbs_status_t{TBS_ST_OK};
    std::cerr << R"({"severity":")" + std::string(name_of_severity(severity)) + R"(","message":)" +
                     json_text(without_line_feeds(text)) + R"(,"status":)" + json_of_status(status) + R"(,"host":)" +
                     host + "}\n";
}

std::string formatted(const char *format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(static_cast<size_t>(length < 0 ? 0 : length), '\0');
    vsnprintf(text.data(), text.size() + 1, format, arguments);
    return text;
}

} // namespace

void tell_in_json() {
    in_json = true;
    imsg_set_sink(write_object, nullptr);
}

bool tells_in_json() {
    return in_json;
}

void tell_failure(tbs_status_t status, const std::string &host, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string text = formatted(format, arguments);
    va_end(arguments);
    tell_failure_by(status, host, [&] { imsg_print(IMSG_ERROR, "%s", IMSG_FORMAT, text.c_str()); });
}

void tell_failure_by(tbs_status_t status, const std::string &host, const std::function<void()> &tell) {
    const Failure failure = {status, host, nullptr};
    current = &failure;
    tell();
    current = nullptr;
}

tbs_status_t tell_failures_of(const std::string &host, const std::function<tbs_status_t()> &work) {
    std::vector<Message> messages;
    const Failure unknown = {TBS_ST_OK, host, &messages};
    current = &unknown;
    const tbs_status_t status = work();
    current = nullptr;
    for (const Message &message : messages)
        tell_failure_by(status, host,
                        [&] { write_object(nullptr, message.severity, nullptr, nullptr, 0, message.text.c_str()); });
    return status;
}

void hear(const std::function<void(const Heard &)> &listener, const std::function<void()> &work) {
    imsg_set_sink(
        [](void *context, int severity, const char *, const imsg_table_t *table, int index, const char *text) {
            (*static_cast<const std::function<void(const Heard &)> *>(context))({severity, table, index, text});
        },
        const_cast<std::function<void(const Heard &)> *>(&listener));
    work();
    imsg_set_sink(in_json ? write_object : nullptr, nullptr);
}

std::string name_of_status(tbs_status_t status) {
    for (const auto &row : status_names)
        if (row.status == status)
            return row.name;
    return "STATUS_" + std::to_string(status);
}

} // namespace velia::cli
