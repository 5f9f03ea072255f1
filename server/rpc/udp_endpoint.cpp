// Datagrams in, replies out, each from the address to which its call came. What cannot be sent at once is dropped: the
// client sends its call again.
#include <server/rpc/udp_endpoint.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace velia::server {

namespace {

constexpr int datagrams_a_turn = 64; // then other descriptors have theirs
constexpr size_t datagram_bytes_max = 65536;

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
    ReplayCache::Key key; // empty for one that may be run again
    Caller caller;
    size_t request_bytes;
};

UdpEndpoint::UdpEndpoint(uv_loop_t *loop, UniqueFd fd, const Dispatcher &dispatcher, ReplyRate &rate)
    : channel_(std::make_shared<Channel>(Channel{std::move(fd), {}, rate})), dispatcher_(dispatcher),
      poll_(loop, channel_->fd.get(), event_target<&UdpEndpoint::receive>(*this)) {
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
    static std::array<unsigned char, datagram_bytes_max> buffer;
    for (int i = 0; i < datagrams_a_turn; ++i) {
        Caller caller;
        caller.transport = RVZD_PROTOCOL_UDP;
        iovec bytes = {buffer.data(), buffer.size()};
        PacketInfo control = {};
        msghdr header = {};
        header.msg_name = &caller.peer;
        header.msg_namelen = sizeof caller.peer;
        header.msg_iov = &bytes;
        header.msg_iovlen = 1;
        header.msg_control = control.room.data();
        header.msg_controllen = control.room.size();
        const ssize_t length = recvmsg(channel_->fd.get(), &header, MSG_DONTWAIT);
        if (length < 0) {
            // An error that an earlier reply brought back is not the end of the queue.
            if (errno == ECONNREFUSED || errno == EINTR)
                continue;
            return;
        }
        if ((header.msg_flags & MSG_TRUNC) != 0)
            continue;
        take_local_address(header, caller.local);
        sysutl_sockaddr_set_port(&caller.local.base, port_);
        take(Bytes(buffer.data(), static_cast<size_t>(length)), caller);
    }
}

void UdpEndpoint::take(Bytes message, const Caller &caller) {
    const CallHeader header = read_call_header(message);
    ReplayCache::Key key;
    if (dispatcher_.must_run_once(header)) {
        key = ReplayCache::key_of(caller, message);
        const MessageBytes *earlier_reply = nullptr;
        const auto verdict = channel_->replies.begin(key, monotonic_ms(), &earlier_reply);
        if (verdict == ReplayCache::Verdict::answered)
            return channel_->send(*earlier_reply, caller, message.size());
        if (verdict != ReplayCache::Verdict::is_new)
            return;
    }
    // Sinks are copied on the way to who answers: what they know is made once.
    const auto call =
        std::make_shared<const PendingCall>(PendingCall{channel_, std::move(key), caller, message.size()});
    dispatcher_.dispatch(header, caller, [call](MessageBytes reply) {
        const auto open = call->channel.lock();
        if (open == nullptr)
            return;
        open->send(reply, call->caller, call->request_bytes);
        if (!call->key.empty())
            open->replies.finish(call->key, monotonic_ms(), std::move(reply));
    });
}

} // namespace velia::server
