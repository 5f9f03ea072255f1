// The head of an HTTP request, as much of it as one page needs: of what comes behind it nothing is taken.
#pragma once

#include <string>
#include <string_view>

namespace velia::server {

enum { HTTP_HEAD_BYTES_MAX = 4096 };

class HttpRequest {
public:
    // Takes what has come; true when there is something to answer.
    bool feed(std::string_view bytes);

    // 200, or why the request gets no page: 400, 404, 405, 431 or 505. Of a whole one.
    int status() const { return status_; }
    bool wants_body() const { return wants_body_; } // not behind HEAD

private:
    int judge(std::string_view head);

    std::string head_;
    int status_ = 0;
    bool wants_body_ = true;
};

// The whole answer to a request; the connection ends behind it.
std::string http_answer(int status, const std::string &body, bool wants_body);

} // namespace velia::server
