#include <server/metrics/http_endpoint.h>

#include <array>
#include <cerrno>
#include <sys/socket.h>
#include <utility>

#include <server/metrics/http_request.h>

namespace velia::server {

namespace {

constexpr uint64_t sweep_interval_ms = 250;
constexpr int accepted_a_turn = 32;

} // namespace

// Takes a request, gives the answer, and waits for the peer's end, so that none of the answer is lost with what the
// peer may still have sent.
class HttpEndpoint::Connection : public std::enable_shared_from_this<Connection> {
public:
    Connection(HttpEndpoint &owner, uint64_t number, UniqueFd fd)
        : owner_(owner), number_(number), fd_(std::move(fd)), begun_ms_(monotonic_ms()),
          poll_(owner.loop_, fd_.get(), event_target<&Connection::on_ready>(*this)) {
        poll_.watch(UV_READABLE);
    }
    ~Connection() { poll_.watch(0); }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    int64_t begun_ms() const { return begun_ms_; }

private:
    void on_ready(int events) {
        const auto alive = shared_from_this(); // the owner drops us
        const bool goes_on = ((events & UV_READABLE) == 0 || receive()) && ((events & UV_WRITABLE) == 0 || send());
        if (!goes_on)
            owner_.connections_.erase(number_);
    }

    // What comes behind a request is read, so that the system does not take it for unread, and dropped.
    bool receive() {
        std::array<char, 1024> piece;
        const ssize_t count = recv(fd_.get(), piece.data(), piece.size(), MSG_DONTWAIT);
        if (count < 0)
            return errno == EAGAIN || errno == EINTR;
        if (count == 0)
            return false;
        if (!answer_.empty() || is_answered_ || !request_.feed({piece.data(), static_cast<size_t>(count)}))
            return true;
        const int status = request_.status();
        answer_ = http_answer(status, status == 200 ? owner_.make_page_() : "", request_.wants_body());
        return send();
    }

    bool send() {
        if (is_answered_)
            return true;
        const ssize_t count =
            ::send(fd_.get(), answer_.data() + sent_, answer_.size() - sent_, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count < 0 && errno != EAGAIN && errno != EINTR)
            return false;
        sent_ += count > 0 ? static_cast<size_t>(count) : 0;
        is_answered_ = sent_ == answer_.size();
        if (is_answered_) {
            std::string().swap(answer_);
            shutdown(fd_.get(), SHUT_WR);
        }
        poll_.watch(is_answered_ ? UV_READABLE : UV_READABLE | UV_WRITABLE);
        return true;
    }

    HttpEndpoint &owner_;
    const uint64_t number_;
    UniqueFd fd_;
    const int64_t begun_ms_;
    HttpRequest request_;
    std::string answer_;
    size_t sent_ = 0;
    bool is_answered_ = false;
    PollHandle poll_;
};

HttpEndpoint::HttpEndpoint(uv_loop_t *loop, UniqueFd fd, std::function<std::string()> make_page,
                           const HttpLimits &limits)
    : loop_(loop), fd_(std::move(fd)), make_page_(std::move(make_page)), limits_(limits),
      poll_(loop, fd_.get(), event_target<&HttpEndpoint::accept_some>(*this)), sweep_timer_(loop, [this] { sweep(); }) {
    poll_.watch(UV_READABLE);
}

HttpEndpoint::~HttpEndpoint() {
    poll_.watch(0);
}

void HttpEndpoint::accept_some() {
    for (int i = 0; i < accepted_a_turn; ++i) {
        UniqueFd fd(accept4(fd_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!fd && errno != EMFILE && errno != ENFILE)
            return;
        // Short of descriptors it is the same as short of places; the newcomer waits for the next turn.
        if (!connections_.empty() && (!fd || connections_.size() >= limits_.connections_max))
            connections_.erase(connections_.begin());
        else if (!fd) {
            poll_.watch(0);
            return sweep_timer_.start(sweep_interval_ms, sweep_interval_ms);
        }
        if (!fd)
            continue;
        if (connections_.empty())
            sweep_timer_.start(sweep_interval_ms, sweep_interval_ms);
        const uint64_t number = next_number_++;
        connections_.emplace(number, std::make_shared<Connection>(*this, number, std::move(fd)));
    }
}

void HttpEndpoint::sweep() {
    const int64_t now_ms = monotonic_ms();
    std::erase_if(connections_,
                  [&](const auto &entry) { return now_ms - entry.second->begun_ms() > limits_.connection_ms; });
    poll_.watch(UV_READABLE); // also after it was short of descriptors
    if (connections_.empty())
        sweep_timer_.stop();
}

} // namespace velia::server
