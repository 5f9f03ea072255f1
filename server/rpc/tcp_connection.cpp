// A peer that sends slowly, sends too much, or does not take its replies costs a bounded amount of memory and time.
#include <server/rpc/tcp_connection.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <sys/socket.h>
#include <utility>

#include <server/rpc/local_sockets.h>

namespace velia::server {

namespace {

constexpr size_t piece_bytes = 16384;
constexpr size_t sent_a_turn = 512 * 1024;
constexpr int64_t stuck_ms = 1000; // a peer that has taken nothing of its replies for so long does not read

} // namespace

TcpConnection::TcpConnection(uv_loop_t *loop, UniqueFd fd, const Caller &caller, const Dispatcher &dispatcher,
                             Owner owner)
    : fd_(std::move(fd)), caller_(caller), maker_(caller.known.value_or(KnownCaller{})), dispatcher_(dispatcher),
      owner_(std::move(owner)), request_begun_ms_(monotonic_ms()), progress_ms_(request_begun_ms_),
      poll_(loop, fd_.get(), event_target<&TcpConnection::on_ready>(*this)) {}

void TcpConnection::begin() {
    go_on();
}

// Who does not take his replies gets no more of them.
bool TcpConnection::may_serve() const {
    return calls_in_progress_ < CALLS_IN_PROGRESS_MAX && unsent_.empty();
}

// What has come is worked on before more is read.
void TcpConnection::go_on() {
    if (!owner_.on_end)
        return;
    int events = unsent_.empty() ? 0 : UV_WRITABLE;
    if (may_serve() && input_.empty())
        events |= UV_READABLE;
    poll_.watch(events);
    if (input_.empty() || !may_serve() || is_in_turn_)
        return;
    is_in_turn_ = true;
    owner_.on_more();
}

void TcpConnection::end() {
    poll_.watch(0);
    if (owner_.on_end)
        std::exchange(owner_.on_end, nullptr)();
}

void TcpConnection::on_ready(int events) {
    const auto alive = shared_from_this(); // the owner may drop us in end()
    const bool is_well =
        ((events & UV_WRITABLE) == 0 || send()) && ((events & UV_READABLE) == 0 || (receive() && serve_one()));
    if (!is_well)
        return end();
    go_on();
}

void TcpConnection::take_turn() {
    const auto alive = shared_from_this();
    is_in_turn_ = false;
    if (may_serve() && !serve_one())
        return end();
    go_on();
}

bool TcpConnection::receive() {
    if (!input_.empty() || !may_serve())
        return true; // an event of before
    static std::array<unsigned char, piece_bytes> piece;
    std::optional<KnownCaller> sender;
    const ssize_t count = caller_.known ? receive_from_known(fd_.get(), piece.data(), piece.size(), sender)
                                        : recv(fd_.get(), piece.data(), piece.size(), MSG_DONTWAIT);
    if (count < 0)
        return errno == EAGAIN || errno == EINTR;
    input_.assign(piece.begin(), piece.begin() + count);
    input_at_ = 0;
    return count > 0 && take_sender(sender);
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

// Works on one request, if there is a whole one in what has come.
bool TcpConnection::serve_one() {
    if (input_.empty())
        return true;
    if (!assembler_.is_within_record() && has_completed_request_)
        request_begun_ms_ = monotonic_ms();
    Bytes bytes = Bytes(input_).subspan(input_at_);
    const auto state = assembler_.feed(bytes);
    input_at_ = input_.size() - bytes.size();
    if (bytes.empty())
        MessageBytes().swap(input_); // an idle connection holds no memory
    if (state != RecordAssembler::State::has_record)
        return state == RecordAssembler::State::needs_bytes;
    const MessageBytes record = assembler_.take();
    // A record that is no call gets no reply, so nothing would ever count it down; such a peer is not worth keeping.
    const CallHeader header = read_call_header(record);
    if (header.fault == CallFault::no_call)
        return false;
    has_completed_request_ = true;
    progress_ms_ = monotonic_ms();
    ++calls_in_progress_;
    std::weak_ptr<TcpConnection> self = weak_from_this();
    dispatcher_.dispatch(header, caller_, [self](MessageBytes message) {
        if (const auto connection = self.lock())
            connection->reply(std::move(message));
    });
    return true;
}

// A long one goes by itself behind its mark: nothing of it is copied.
void TcpConnection::add_unsent(MessageBytes message) {
    if (message.size() <= reply_is_long_beyond) {
        message = with_record_mark(message);
        unsent_bytes_ += message.size();
        return unsent_.push_back({std::move(message), nullptr});
    }
    auto mark = record_mark(message.size());
    unsent_bytes_ += mark.size();
    unsent_.push_back({std::move(mark), nullptr});
    auto place = std::make_unique<LongReply>(host(), message.size());
    unsent_.push_back({std::move(message), std::move(place)});
}

void TcpConnection::reply(MessageBytes message) {
    --calls_in_progress_;
    if (!owner_.on_end)
        return;
    if (unsent_.empty())
        taken_ms_ = monotonic_ms();
    add_unsent(std::move(message));
    if (!send() || unsent_bytes_ > UNSENT_BYTES_MAX)
        return end();
    go_on();
}

// Others have their turn between the parts of a long one.
bool TcpConnection::send() {
    for (size_t sent = 0; !unsent_.empty() && sent < sent_a_turn;) {
        const auto &first = unsent_.front().bytes;
        const ssize_t count = ::send(fd_.get(), first.data() + sent_of_first_,
                                     std::min(first.size() - sent_of_first_, sent_a_turn), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count < 0)
            return errno == EAGAIN || errno == EINTR;
        taken_ms_ = progress_ms_ = monotonic_ms();
        sent += static_cast<size_t>(count);
        sent_of_first_ += static_cast<size_t>(count);
        if (sent_of_first_ == first.size()) {
            unsent_bytes_ -= unsent_.front().place == nullptr ? first.size() : 0;
            unsent_.pop_front();
            sent_of_first_ = 0;
        }
    }
    return true;
}

bool TcpConnection::is_overdue(int64_t now_ms, const ConnectionLimits &limits) const {
    if (!unsent_.empty())
        return now_ms - taken_ms_ > limits.request_ms;
    if (calls_in_progress_ != 0 && !may_serve())
        return false; // it is not read from, so it cannot finish what it has begun
    if (assembler_.is_within_record() || !has_completed_request_)
        return now_ms - request_begun_ms_ > limits.request_ms;
    return calls_in_progress_ == 0 && now_ms - progress_ms_ > limits.idle_ms;
}

TcpConnection::Use TcpConnection::use(int64_t now_ms) const {
    if (!has_completed_request_ || (!unsent_.empty() && now_ms - taken_ms_ > stuck_ms))
        return Use::none;
    return calls_in_progress_ != 0 || !unsent_.empty() ? Use::worked_for : Use::idle;
}

bool TcpConnection::is_useless(int64_t now_ms) const {
    return use(now_ms) == Use::none && now_ms - std::max(progress_ms_, taken_ms_) > stuck_ms;
}

} // namespace velia::server
