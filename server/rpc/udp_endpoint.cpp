// Datagrams in, replies out, each from the address to which its call came. What cannot be sent at once is dropped: the
// client sends its call again. Those that have come together are worked on in turn of their senders.
#include <server/rpc/udp_endpoint.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <sys/socket.h>

namespace velia::server {

namespace {

constexpr size_t datagrams_a_turn = 32; // then other descriptors have theirs
constexpr size_t datagram_bytes_max = 65536;
constexpr int waiting_bytes = 4 << 20; // that the system is to keep; it gives what it will

union PacketInfo {
    std::array<char, CMSG_SPACE(sizeof(in6_pktinfo))> room;
    cmsghdr align;
};

void take_local_address(msghdr &header, ks_sockaddr_storage_t &local) {
    for (cmsghdr *control = CMSG_FIRSTHDR(&header); control != nullptr; control = CMSG_NXTHDR(&header, control)) {
        if (control->cmsg_level == IPPROTO_IP && control->cmsg_type == IP_PKTINFO) {
            in_pktinfo info;
            memcpy(&info, CMSG_DATA(control), sizeof info);
            local.ipv4.sin_family = AF_INET;
            local.ipv4.sin_addr = info.ipi_addr;
        } else if (control->cmsg_level == IPPROTO_IPV6 && control->cmsg_type == IPV6_PKTINFO) {
            in6_pktinfo info;
            memcpy(&info, CMSG_DATA(control), sizeof info);
            local.ipv6.sin6_family = AF_INET6;
            local.ipv6.sin6_addr = info.ipi6_addr;
        }
    }
}

template <class Info>
void set_control(msghdr &header, PacketInfo &control, int level, int type, const Info &info) {
    header.msg_control = control.room.data();
    header.msg_controllen = CMSG_SPACE(sizeof info);
    cmsghdr *first = CMSG_FIRSTHDR(&header);
    first->cmsg_level = level;
    first->cmsg_type = type;
    first->cmsg_len = CMSG_LEN(sizeof info);
    memcpy(CMSG_DATA(first), &info, sizeof info);
}

void set_local_address(msghdr &header, PacketInfo &control, const ks_sockaddr_storage_t &local) {
    if (local.base.sa_family == AF_INET) {
        in_pktinfo info = {};
        info.ipi_spec_dst = local.ipv4.sin_addr;
        set_control(header, control, IPPROTO_IP, IP_PKTINFO, info);
    } else if (local.base.sa_family == AF_INET6) {
        in6_pktinfo info = {};
        info.ipi6_addr = local.ipv6.sin6_addr;
        set_control(header, control, IPPROTO_IPV6, IPV6_PKTINFO, info);
    }
}

} // namespace

// What one call to the system brings. The daemon has one thread that receives, and so one of these.
struct UdpEndpoint::Arrivals {
    std::array<std::array<unsigned char, datagram_bytes_max>, datagrams_a_turn> bytes;
    std::array<PacketInfo, datagrams_a_turn> controls;
    std::array<iovec, datagrams_a_turn> vectors;
    std::array<Caller, datagrams_a_turn> callers;
    std::array<mmsghdr, datagrams_a_turn> headers;

    void make_ready() {
        for (size_t i = 0; i < datagrams_a_turn; ++i) {
            vectors[i] = {bytes[i].data(), bytes[i].size()};
            callers[i] = {};
            callers[i].transport = RVZD_PROTOCOL_UDP;
            msghdr &header = headers[i].msg_hdr;
            header = {};
            header.msg_name = &callers[i].peer;
            header.msg_namelen = sizeof callers[i].peer;
            header.msg_iov = &vectors[i];
            header.msg_iovlen = 1;
            header.msg_control = controls[i].room.data();
            header.msg_controllen = controls[i].room.size();
        }
    }
    // How many came.
    size_t receive(int fd) {
        make_ready();
        int count = 0;
        do {
            count = recvmmsg(fd, headers.data(), datagrams_a_turn, MSG_DONTWAIT, nullptr);
        } while (count < 0 && (errno == EINTR || errno == ECONNREFUSED)); // of an earlier reply
        return count > 0 ? static_cast<size_t>(count) : 0;
    }
};

struct UdpEndpoint::Channel {
    UniqueFd fd;
    ReplayCache replies;
    ReplyRate &rate;

    void send(const MessageBytes &reply, const Caller &caller, size_t request_bytes) {
        if (!rate.permits(caller.peer, request_bytes, reply.size(), monotonic_ms()))
            return;
        Caller ends = caller;
        iovec bytes = {const_cast<unsigned char *>(reply.data()), reply.size()};
        PacketInfo control = {};
        msghdr header = {};
        header.msg_name = &ends.peer;
        header.msg_namelen = sysutl_sockaddr_size(&ends.peer.base);
        header.msg_iov = &bytes;
        header.msg_iovlen = 1;
        set_local_address(header, control, ends.local);
        sendmsg(fd.get(), &header, MSG_DONTWAIT | MSG_NOSIGNAL);
    }
};

struct UdpEndpoint::PendingCall {
    std::weak_ptr<Channel> channel;
    ReplayCache::Key key; // of one that runs once
    Caller caller;
    size_t request_bytes;
};

UdpEndpoint::UdpEndpoint(uv_loop_t *loop, UniqueFd fd, const Dispatcher &dispatcher, ReplyRate &rate)
    : channel_(std::make_shared<Channel>(Channel{std::move(fd), {}, rate})), dispatcher_(dispatcher),
      poll_(loop, channel_->fd.get(), event_target<&UdpEndpoint::receive>(*this)) {
    setsockopt(channel_->fd.get(), SOL_SOCKET, SO_RCVBUF, &waiting_bytes, sizeof waiting_bytes);
    ks_sockaddr_storage_t own = {};
    socklen_t length = sizeof own;
    getsockname(channel_->fd.get(), &own.base, &length);
    sysutl_sockaddr_get_port(&own.base, &port_);
    poll_.watch(UV_READABLE);
}

UdpEndpoint::~UdpEndpoint() {
    poll_.watch(0);
}

void UdpEndpoint::receive() {
    static const auto arrivals = std::make_unique<Arrivals>();
    const size_t count = arrivals->receive(channel_->fd.get());
    FairQueue<size_t> in_turn({datagrams_a_turn, datagrams_a_turn, datagrams_a_turn});
    for (size_t i = 0; i < count; ++i) {
        take_local_address(arrivals->headers[i].msg_hdr, arrivals->callers[i].local);
        sysutl_sockaddr_set_port(&arrivals->callers[i].local.base, port_);
        in_turn.push(sender_of(arrivals->callers[i]), i);
    }
    while (const auto next = in_turn.pop())
        if ((arrivals->headers[*next].msg_hdr.msg_flags & MSG_TRUNC) == 0)
            take(Bytes(arrivals->bytes[*next].data(), arrivals->headers[*next].msg_len), arrivals->callers[*next]);
}

void UdpEndpoint::take(Bytes message, const Caller &caller) {
    const CallHeader header = read_call_header(message);
    if (dispatcher_.must_run_once(header))
        return take_once(header, message, caller);
    // Sinks are copied on the way to who answers: what they know is made once.
    const auto call = std::make_shared<const PendingCall>(PendingCall{channel_, {}, caller, message.size()});
    dispatcher_.dispatch(header, caller, [call](const MessageBytes &reply) {
        if (const auto open = call->channel.lock())
            open->send(reply, call->caller, call->request_bytes);
    });
}

void UdpEndpoint::take_once(const CallHeader &header, Bytes message, const Caller &caller) {
    const auto key = ReplayCache::key_of(caller, message);
    const MessageBytes *earlier_reply = nullptr;
    switch (channel_->replies.begin(key, monotonic_ms(), &earlier_reply)) {
    case ReplayCache::Verdict::answered:
        return channel_->send(*earlier_reply, caller, message.size());
    case ReplayCache::Verdict::in_progress:
        return;
    case ReplayCache::Verdict::too_many:
        return channel_->send(dispatcher_.try_again(header), caller, message.size());
    case ReplayCache::Verdict::is_new:
        break;
    }
    const auto call = std::make_shared<const PendingCall>(PendingCall{channel_, key, caller, message.size()});
    dispatcher_.dispatch(header, caller, [call](MessageBytes reply) {
        const auto open = call->channel.lock();
        if (open == nullptr)
            return;
        open->send(reply, call->caller, call->request_bytes);
        open->replies.finish(call->key, monotonic_ms(), std::move(reply));
    });
}

} // namespace velia::server
