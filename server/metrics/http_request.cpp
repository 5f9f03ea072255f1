#include <server/metrics/http_request.h>

#include <algorithm>
#include <cctype>

namespace velia::server {

namespace {

constexpr const char *end_of_line = "\r\n";
constexpr std::string_view end_of_head = "\r\n\r\n";
constexpr std::string_view page = "/metrics";

struct Reason {
    int status;
    const char *words;
    const char *field; // of the answer, or empty
};
constexpr Reason reasons[] = {{200, "OK", ""},
                              {400, "Bad Request", ""},
                              {404, "Not Found", ""},
                              {405, "Method Not Allowed", "Allow: GET, HEAD\r\n"},
                              {431, "Request Header Fields Too Large", ""},
                              {505, "HTTP Version Not Supported", ""}};

bool is_token(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 ||
               std::string_view("!#$%&'*+-.^_`|~").find(static_cast<char>(c)) != std::string_view::npos;
    });
}

// Lines of "name: value"; whoever sends something else means something else.
bool are_fields(std::string_view lines) {
    while (!lines.empty()) {
        const auto end = lines.find(end_of_line);
        const auto line = lines.substr(0, end);
        const auto colon = line.find(':');
        if (colon == std::string_view::npos || !is_token(line.substr(0, colon)))
            return false;
        lines.remove_prefix(end == std::string_view::npos ? lines.size() : end + 2);
    }
    return true;
}

} // namespace

bool HttpRequest::feed(std::string_view bytes) {
    head_.append(bytes.substr(0, HTTP_HEAD_BYTES_MAX + 1 - std::min<size_t>(head_.size(), HTTP_HEAD_BYTES_MAX)));
    const auto end = head_.find(end_of_head);
    if (end != std::string::npos && end + end_of_head.size() <= HTTP_HEAD_BYTES_MAX)
        status_ = judge(std::string_view(head_).substr(0, end));
    else if (head_.size() > HTTP_HEAD_BYTES_MAX)
        status_ = 431;
    else if (head_.find('\0') != std::string::npos)
        status_ = 400; // no head has one: nothing is waited for
    return status_ != 0;
}

int HttpRequest::judge(std::string_view head) {
    const auto line = head.substr(0, head.find(end_of_line));
    const auto method_end = line.find(' ');
    const auto target_end = line.find(' ', method_end == std::string_view::npos ? method_end : method_end + 1);
    if (method_end == std::string_view::npos || target_end == std::string_view::npos)
        return 400;
    const auto method = line.substr(0, method_end);
    auto target = line.substr(method_end + 1, target_end - method_end - 1);
    const auto version = line.substr(target_end + 1);
    const auto fields = head.size() > line.size() ? head.substr(line.size() + 2) : std::string_view();
    if (!is_token(method) || target.empty() || !version.starts_with("HTTP/") || !are_fields(fields))
        return 400;
    if (version != "HTTP/1.1" && version != "HTTP/1.0")
        return 505;
    wants_body_ = method != "HEAD";
    if (method != "GET" && method != "HEAD")
        return 405;
    target = target.substr(0, target.find('?'));
    return target == page ? 200 : 404;
}

std::string http_answer(int status, const std::string &body, bool wants_body) {
    const auto *reason =
        std::find_if(std::begin(reasons), std::end(reasons), [&](const auto &row) { return row.status == status; });
    const std::string text = status == 200 ? body : std::string(reason->words) + "\n";
    const char *type = status == 200 ? "text/plain; version=0.0.4; charset=utf-8" : "text/plain; charset=utf-8";
    return "HTTP/1.1 " + std::to_string(status) + " " + reason->words + end_of_line + reason->field +
           "Content-Type: " + type + "\r\nContent-Length: " + std::to_string(text.size()) +
           "\r\nConnection: close\r\n\r\n" + (wants_body ? text : "");
}

} // namespace velia::server
