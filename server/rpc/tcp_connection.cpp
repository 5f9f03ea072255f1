// A peer that sends slowly, sends too much, or does not take its replies costs a bounded amount of memory and time.
#include <server/rpc/tcp_connection.h>

#include <array>
#include <cerrno>
#include <sys/socket.h>
#include <utility>

#include <server/rpc/local_sockets.h>

namespace velia::server {

namespace {

constexpr size_t piece_bytes = 16384;

enum Rank { NEVER_COMPLETED, IDLE, WITHIN_REQUEST, WORKED_FOR };

} // namespace

TcpConnection::TcpConnection(uv_loop_t *loop, UniqueFd fd, const Caller &caller, const Dispatcher &dispatcher,
                             std::function<void()> on_end)
    : fd_(std::move(fd)), caller_(caller), maker_(caller.known.value_or(KnownCaller{})), dispatcher_(dispatcher),
      on_end_(std::move(on_end)), request_begun_ms_(monotonic_ms()), active_ms_(request_begun_ms_),
      poll_(loop, fd_.get(), event_target<&TcpConnection::on_ready>(*this)) {}

void TcpConnection::begin() {
    watch();
}

void TcpConnection::watch() {
    int events = unsent_.empty() ? 0 : UV_WRITABLE;
    if (calls_in_progress_ < CALLS_IN_PROGRESS_MAX)
        events |= UV_READABLE;
    poll_.watch(events);
}

void TcpConnection::end() {
    poll_.watch(0);
    if (on_end_)
        std::exchange(on_end_, nullptr)();
}

void TcpConnection::on_ready(int events) {
    const auto alive = shared_from_this(); // the owner may drop us in end()
    const bool is_well = ((events & UV_WRITABLE) == 0 || send()) && ((events & UV_READABLE) == 0 || receive());
    if (!is_well)
        return end();
    if (on_end_)
        watch();
}

bool TcpConnection::receive() {
    std::array<unsigned char, piece_bytes> piece;
    std::optional<KnownCaller> sender;
    const ssize_t count = caller_.known ? receive_from_known(fd_.get(), piece.data(), piece.size(), sender)
                                        : recv(fd_.get(), piece.data(), piece.size(), MSG_DONTWAIT);
    if (count < 0)
        return errno == EAGAIN || errno == EINTR;
    return count > 0 && take_sender(sender) && process(Bytes(piece.data(), static_cast<size_t>(count)));
}

// A connection may pass from hand to hand, but a record is one sender's.
bool TcpConnection::take_sender(const std::optional<KnownCaller> &sender) {
    if (!caller_.known)
        return true;
    if (!sender || (assembler_.is_within_record() && sender != sender_))
        return false;
    sender_ = sender;
    caller_.known = known_by_both(maker_, *sender);
    return true;
}

bool TcpConnection::process(Bytes bytes) {
    active_ms_ = monotonic_ms();
    while (!bytes.empty()) {
        if (!assembler_.is_within_record() && has_completed_request_)
            request_begun_ms_ = active_ms_;
        switch (assembler_.feed(bytes)) {
        case RecordAssembler::State::is_broken:
            return false;
        case RecordAssembler::State::needs_bytes:
            return true;
        case RecordAssembler::State::has_record:
            break;
        }
        has_completed_request_ = true;
        ++calls_in_progress_;
        std::weak_ptr<TcpConnection> self = weak_from_this();
        const MessageBytes record = assembler_.take();
        // A record that is no call gets no reply, so nothing would ever count it down; such a peer is not worth
        // keeping.
        const CallHeader header = read_call_header(record);
        if (header.fault == CallFault::no_call)
            return false;
        dispatcher_.dispatch(header, caller_, [self](const MessageBytes &message) {
            if (const auto connection = self.lock())
                connection->reply(message);
        });
    }
    return true;
}

void TcpConnection::reply(const MessageBytes &message) {
    --calls_in_progress_;
    if (!on_end_)
        return;
    auto record = with_record_mark(message);
    unsent_bytes_ += record.size();
    unsent_.push_back(std::move(record));
    if (!send() || unsent_bytes_ > UNSENT_BYTES_MAX)
        return end();
    watch();
}

bool TcpConnection::send() {
    while (!unsent_.empty()) {
        const auto &first = unsent_.front();
        const ssize_t count = ::send(fd_.get(), first.data() + sent_of_first_, first.size() - sent_of_first_,
                                     MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count < 0)
            return errno == EAGAIN || errno == EINTR;
        active_ms_ = monotonic_ms();
        sent_of_first_ += static_cast<size_t>(count);
        if (sent_of_first_ == first.size()) {
            unsent_bytes_ -= first.size();
            unsent_.pop_front();
            sent_of_first_ = 0;
        }
    }
    return true;
}

bool TcpConnection::is_overdue(int64_t now_ms, const ConnectionLimits &limits) const {
    if (!unsent_.empty())
        return now_ms - active_ms_ > limits.request_ms;
    if (assembler_.is_within_record() || !has_completed_request_)
        return now_ms - request_begun_ms_ > limits.request_ms;
    return calls_in_progress_ == 0 && now_ms - active_ms_ > limits.idle_ms;
}

int TcpConnection::rank() const {
    if (calls_in_progress_ != 0 || !unsent_.empty())
        return WORKED_FOR;
    if (!has_completed_request_)
        return NEVER_COMPLETED;
    return assembler_.is_within_record() ? WITHIN_REQUEST : IDLE;
}

} // namespace velia::server
