// The connect probe: scripted where the order of events matters, over real sockets where the system's part does.
#include <tests/unit/rvzd_clnt/broker_fixture.h>

#include <cstring>
#include <future>
#include <thread>

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <support/stg.h>
#include <tests/sim/noted.h>
#include <tests/sim/without_standard_input.h>
#include <veliaxdr/rvzd_probe.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr int64_t whole_wait_us = 900'000;

class ConnectProbe : public BrokerTest {
protected:
    void trace() {
        world.verbosity = 3;
        world.traced = {"xdr/rvzd:3"};
    }
    // A host of so many addresses, whose connections begin with these errno values.
    void add_target(std::vector<int> connect_errors) {
        auto &endpoints = world.network.hosts["target"];
        for (size_t i = 0; i < connect_errors.size(); ++i)
            endpoints.push_back({"127.0.0." + std::to_string(i + 1), 371});
        world.network.connect_errors.assign(connect_errors.begin(), connect_errors.end());
    }
    int probe(const char *host = "target") {
        const int result = rvzd_nonblock_connect_ping(host);
        EXPECT_EQ(world.live_descriptors(), 0u);
        EXPECT_EQ(world.live_blocks(), 0u);
        EXPECT_EQ(world.network.resolver_lists, 0);
        expect_each_socket_was_closed_once();
        expect_lock_is_free();
        return result;
    }
    void expect_each_socket_was_closed_once() {
        auto opened = world.network.opened;
        auto closed = world.network.closed;
        std::sort(opened.begin(), opened.end());
        std::sort(closed.begin(), closed.end());
        EXPECT_EQ(opened, closed);
    }
    std::vector<int64_t> waits_us() const {
        std::vector<int64_t> found;
        for (const auto &time_out : world.network.time_outs)
            found.push_back(time_out.tv_sec * 1'000'000 + time_out.tv_usec);
        return found;
    }
    int descriptor(size_t place) const { return world.network.opened.at(place); }

    static sim::Message failed(int severity, const char *operation, const char *text) {
        return sim::told_by("xdr/rvzd", message_of(severity, _tbs_cmsg_tbs_msg_table, 46, operation, text));
    }
    sim::Message trying(size_t place) const {
        return text_message(IMSG_TRACE, "trying target (127.0.0." + std::to_string(place + 1) +
                                            "): port: 371 using fd: " + std::to_string(descriptor(place)) + "\n");
    }
    static sim::Message gave_up() {
        return text_message(IMSG_ERROR, "Timed out (1 tries) trying to connect to target\n");
    }
    static sim::Message timed_out() { return text_message(IMSG_WARNING, "Timed out connecting to target\n"); }
    static sim::Message refused(int error_number) {
        return text_message(IMSG_ERROR,
                            std::string("Failed to connect to target on port 371 (") + strerror(error_number) + ")\n");
    }
    sim::Message connected_with(size_t place) const {
        return text_message(IMSG_TRACE,
                            "connected to target on port 371 with socket " + std::to_string(descriptor(place)) + "\n");
    }
};

TEST_F(ConnectProbe, AsksTheResolverForStreamAddressesThatThisHostCanUse) {
    add_target({0});
    h_errno = 17;
    EXPECT_EQ(probe(), 1);
    EXPECT_EQ(h_errno, 0);
    ASSERT_THAT(world.network.hints, SizeIs(1));
    const addrinfo &hints = world.network.hints[0];
    EXPECT_EQ(hints.ai_flags, AI_ADDRCONFIG);
    EXPECT_EQ(hints.ai_socktype, SOCK_STREAM);
    EXPECT_EQ(hints.ai_family, 0);
    EXPECT_EQ(hints.ai_protocol, 0);
}

TEST_F(ConnectProbe, AHostThatCannotBeResolvedIsToldWithTheTextOfErrno) {
    world.network.resolver_errno = EAI_NONAME;
    EXPECT_EQ(probe("nowhere"), 0);
    EXPECT_THAT(
        world.take_messages(),
        ElementsAre(sim::told_by("xdr/rvzd", message_of(IMSG_ERROR, _tbs_cmsg_tbs_msg_table, 47, "getaddrinfo()",
                                                        "nowhere", gai_strerror(EAI_NONAME)))));
    world.network.resolver_errno = ENOENT;
    EXPECT_EQ(probe("nowhere"), 0);
    EXPECT_THAT(world.take_messages(),
                ElementsAre(sim::told_by("xdr/rvzd", message_of(IMSG_ERROR, _tbs_cmsg_tbs_msg_table, 47,
                                                                "getaddrinfo()", "nowhere", gai_strerror(ENOENT)))));
    EXPECT_THAT(waits_us(), IsEmpty());
}

TEST_F(ConnectProbe, AConnectionThatStandsAtOnceEndsIt) {
    trace();
    add_target({0, 0});
    EXPECT_EQ(probe(), 1);
    EXPECT_THAT(world.network.opened, SizeIs(1));
    EXPECT_THAT(world.take_messages(),
                ElementsAre(trying(0), text_message(IMSG_TRACE, "connected to target on port 371\n")));
    EXPECT_THAT(waits_us(), IsEmpty());
}

TEST_F(ConnectProbe, AConnectionThatStandsAtOnceDropsThoseUnderWay) {
    add_target({EINPROGRESS, EINPROGRESS, 0, EINPROGRESS});
    EXPECT_EQ(probe(), 1);
    EXPECT_THAT(world.network.opened, SizeIs(3));
    EXPECT_THAT(waits_us(), IsEmpty());
}

TEST_F(ConnectProbe, WhenAllFailAtOnceNobodyWaits) {
    trace();
    add_target({ECONNREFUSED, ENETUNREACH});
    EXPECT_EQ(probe(), 0);
    EXPECT_THAT(waits_us(), IsEmpty());
    EXPECT_THAT(world.take_messages(),
                ElementsAre(trying(0), failed(IMSG_ERROR, "connect()", imsg_strerror(ECONNREFUSED)), trying(1),
                            failed(IMSG_ERROR, "connect()", imsg_strerror(ENETUNREACH))));
}

TEST_F(ConnectProbe, NothingIsPrintedWithoutTrace) {
    add_target({ECONNREFUSED, EINPROGRESS, EINPROGRESS});
    world.network.script = {sim::finds_ready({1}), sim::times_out()};
    world.network.socket_errors = {{0, ECONNREFUSED}};
    for (const int verbosity : {0, 2, 9}) {
        world.verbosity = verbosity;
        world.traced = verbosity == 9 ? std::set<std::string>{"xdr/rvzd:2"} : std::set<std::string>{"xdr/rvzd:3"};
        world.network.script = {sim::finds_ready({1}), sim::times_out()};
        world.network.opened.clear();
        world.network.closed.clear();
        EXPECT_EQ(probe(), 0);
        EXPECT_THAT(world.take_messages(), IsEmpty());
        world.network.connect_errors = {ECONNREFUSED, EINPROGRESS, EINPROGRESS};
        world.network.socket_errors = {{0, ECONNREFUSED}};
    }
}

TEST_F(ConnectProbe, ASilentHostIsWaitedForOnce) {
    trace();
    add_target({EINPROGRESS, EINPROGRESS});
    world.network.script = {sim::times_out()};
    EXPECT_EQ(probe(), 0);
    EXPECT_THAT(waits_us(), ElementsAre(whole_wait_us));
    EXPECT_THAT(world.take_messages(), ElementsAre(trying(0), trying(1), gave_up(), timed_out()));
}

TEST_F(ConnectProbe, TheFirstThatStandsEndsItWhileOthersHang) {
    trace();
    add_target({EINPROGRESS, EINPROGRESS, EINPROGRESS});
    world.network.script = {sim::finds_ready({1, 2})};
    world.network.socket_errors = {{0, 0}};
    EXPECT_EQ(probe(), 1);
    EXPECT_THAT(waits_us(), ElementsAre(whole_wait_us));
    EXPECT_THAT(world.take_messages(), ElementsAre(trying(0), trying(1), trying(2), connected_with(1)));
}

TEST_F(ConnectProbe, ARefusalBeginsANewWaitForThoseThatHang) {
    trace();
    add_target({EINPROGRESS, EINPROGRESS, EINPROGRESS});
    world.network.script = {sim::finds_ready({0}), sim::finds_ready({1, 0}), sim::times_out()};
    world.network.socket_errors = {{0, ECONNREFUSED}, {0, EHOSTUNREACH}};
    EXPECT_EQ(probe(), 0);
    EXPECT_THAT(waits_us(), ElementsAre(whole_wait_us, whole_wait_us, whole_wait_us));
    EXPECT_THAT(world.take_messages(), ElementsAre(trying(0), trying(1), trying(2), refused(ECONNREFUSED),
                                                   refused(EHOSTUNREACH), gave_up(), timed_out()));
}

TEST_F(ConnectProbe, WhenTheLastOneIsRefusedThereIsNoWordOfTime) {
    trace();
    add_target({EINPROGRESS});
    world.network.script = {sim::finds_ready({0})};
    world.network.socket_errors = {{0, ECONNREFUSED}};
    EXPECT_EQ(probe(), 0);
    EXPECT_THAT(waits_us(), ElementsAre(whole_wait_us));
    EXPECT_THAT(world.take_messages(), ElementsAre(trying(0), refused(ECONNREFUSED)));
}

TEST_F(ConnectProbe, AfterARefusalAnotherMayStillStand) {
    add_target({EINPROGRESS, EINPROGRESS});
    world.network.script = {sim::finds_ready({0}), sim::finds_ready({1})};
    world.network.socket_errors = {{0, ECONNREFUSED}, {0, 0}};
    EXPECT_EQ(probe(), 1);
    EXPECT_THAT(waits_us(), ElementsAre(whole_wait_us, whole_wait_us));
}

TEST_F(ConnectProbe, AnInterruptedWaitGoesOnWithWhatIsLeftOfIt) {
    add_target({EINPROGRESS});
    world.network.script = {sim::fails_with(EINTR, 600'000), sim::fails_with(EINTR, 1), sim::finds_ready({0})};
    world.network.socket_errors = {{0, 0}};
    EXPECT_EQ(probe(), 1);
    EXPECT_THAT(waits_us(), ElementsAre(whole_wait_us, 600'000, 1));
}

TEST_F(ConnectProbe, AfterAnInterruptedWaitTheNextIsAWholeOne) {
    add_target({EINPROGRESS, EINPROGRESS});
    world.network.script = {sim::fails_with(EINTR, 300'000), sim::finds_ready({0}), sim::times_out()};
    world.network.socket_errors = {{0, ECONNREFUSED}};
    EXPECT_EQ(probe(), 0);
    EXPECT_THAT(waits_us(), ElementsAre(whole_wait_us, 300'000, whole_wait_us));
}

TEST_F(ConnectProbe, AWaitThatFailsEndsIt) {
    trace();
    add_target({EINPROGRESS, EINPROGRESS});
    world.network.script = {sim::fails_with(ENOMEM, 0)};
    EXPECT_EQ(probe(), 0);
    EXPECT_THAT(waits_us(), SizeIs(1));
    EXPECT_THAT(world.take_messages(),
                ElementsAre(trying(0), trying(1), failed(IMSG_TRACE, "select()", imsg_strerror(ENOMEM))));
}

TEST_F(ConnectProbe, ASocketThatCannotTellItsErrorIsClosedAndGivenUp) {
    trace();
    add_target({EINPROGRESS, EINPROGRESS});
    world.network.script = {sim::finds_ready({0}), sim::finds_ready({0, 1})};
    world.network.socket_errors = {{EBADF, 0}, {0, 0}};
    EXPECT_EQ(probe(), 1); // and each descriptor was closed once
    EXPECT_THAT(
        world.take_messages(),
        ElementsAre(trying(0), trying(1), failed(IMSG_TRACE, "getsockopt()", imsg_strerror(EBADF)), connected_with(1)));
}

TEST_F(ConnectProbe, AnAddressWithoutASocketIsToldAndPassedOver) {
    add_target({});
    world.network.hosts["target"] = {{"127.0.0.1", 371}, {"127.0.0.2", 371}};
    world.faults.socket = 0;
    world.faults.error_number = EAFNOSUPPORT;
    EXPECT_EQ(probe(), 0);
    const auto message = failed(IMSG_ERROR, "socket()", imsg_strerror(EAFNOSUPPORT));
    EXPECT_THAT(world.take_messages(), ElementsAre(message, message));
}

TEST_F(ConnectProbe, ASocketThatStaysBlockingIsToldAndPassedOver) {
    add_target({0}); // of the second address: the first is not connected at all
    world.network.hosts["target"] = {{"127.0.0.1", 371}, {"127.0.0.2", 371}};
    world.network.nonblocking_results = {TBS_ST_INVALID_ARG};
    EXPECT_EQ(probe(), 1);
    EXPECT_THAT(world.network.opened, SizeIs(2));
    EXPECT_THAT(world.take_messages(),
                ElementsAre(failed(IMSG_ERROR, "sysutl_set_socket_nonblocking()", tbs_strerror(TBS_ST_INVALID_ARG))));
}

TEST_F(ConnectProbe, AnAddressThatHasNoTextIsTriedNevertheless) {
    add_target({0});
    world.network.numeric_results = {EAI_FAMILY};
    EXPECT_EQ(probe(), 1); // without trace nobody wants the text
    EXPECT_THAT(world.network.numeric_results, SizeIs(1));
    trace();
    EXPECT_EQ(probe(), 1);
    EXPECT_THAT(world.take_messages(), ElementsAre(failed(IMSG_ERROR, "getnameinfo()", gai_strerror(1)),
                                                   text_message(IMSG_TRACE, "connected to target on port 371\n")));
}

TEST_F(ConnectProbe, DescriptorsBeyondTheSetsAreRefused) {
    add_target({0});
    world.network.hosts["target"] = {{"127.0.0.1", 371}, {"127.0.0.2", 371}, {"127.0.0.3", 371}};
    world.network.descriptors = {16384, INT32_MAX};
    EXPECT_EQ(probe(), 1); // by the third
    EXPECT_THAT(world.network.opened, SizeIs(3));
    const auto message = failed(IMSG_ERROR, "socket()", imsg_strerror(EMFILE));
    EXPECT_THAT(world.take_messages(), ElementsAre(message, message));
}

TEST_F(ConnectProbe, TheLastDescriptorOfTheSetsIsWaitedFor) {
    add_target({EINPROGRESS, EINPROGRESS});
    world.network.descriptors = {16383, 1024};
    world.network.script = {sim::finds_ready({1}), sim::finds_ready({0})};
    world.network.socket_errors = {{0, ECONNREFUSED}, {0, 0}};
    EXPECT_EQ(probe(), 1);
    EXPECT_THAT(waits_us(), SizeIs(2));
}

TEST_F(ConnectProbe, TheDescriptorOfAClosedStandardInputIsOneLikeAnyOther) {
    const sim::WithoutStandardInput without;
    world.network.closed.clear(); // of the standard input itself
    add_target({EINPROGRESS});
    world.network.script = {sim::times_out()};
    EXPECT_EQ(probe(), 0);
    add_target({EINPROGRESS});
    world.network.hosts["target"].resize(1);
    world.network.script = {sim::finds_ready({1})};
    world.network.socket_errors = {{0, 0}};
    EXPECT_EQ(probe(), 1);
    EXPECT_THAT(world.network.opened, ElementsAre(STDIN_FILENO, STDIN_FILENO));
    EXPECT_THAT(waits_us(), SizeIs(2));
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(ConnectProbe, ManyAddressesAreAllTriedAtOnce) {
    std::vector<int> errors(100, EINPROGRESS);
    for (size_t i = 0; i < errors.size(); i += 3)
        errors[i] = ECONNREFUSED; // its place is used again
    add_target(errors);
    world.network.script = {sim::times_out()};
    EXPECT_EQ(probe(), 0);
    EXPECT_THAT(world.network.opened, SizeIs(100));
    EXPECT_THAT(waits_us(), SizeIs(1));
}

TEST_F(ConnectProbe, DoesNotWaitForABrokerCallOfAnotherThread) {
    add_target({EINPROGRESS});
    world.network.script = {sim::times_out()};
    std::promise<void> locked;
    std::promise<void> probed;
    std::thread caller([&] {
        ivlthread_mutex_lock(&rvzd_call_lock);
        locked.set_value();
        probed.get_future().wait();
        ivlthread_mutex_unlock(&rvzd_call_lock);
    });
    locked.get_future().wait();
    EXPECT_EQ(rvzd_nonblock_connect_ping("target"), 0);
    probed.set_value();
    caller.join();
    EXPECT_THAT(waits_us(), SizeIs(1));
}

TEST_F(ConnectProbe, WithoutStorageAnAddressIsToldAndPassedOver) {
    add_target({});
    const auto message = failed(IMSG_ERROR, "stg_alloc()", tbs_strerror(TBS_ST_NO_MEMORY));
    int result = -1;
    const int failures = sim::sweep_allocations(
        world,
        [&] {
            world.network.hosts["target"] = {{"127.0.0.1", 371}, {"127.0.0.2", 371}, {"127.0.0.3", 371}};
            world.network.connect_errors = {EINPROGRESS, EINPROGRESS, EINPROGRESS};
            world.network.script = {sim::times_out()};
            result = probe();
        },
        [&](int number) {
            EXPECT_EQ(result, 0);
            const std::vector<sim::Message> told(world.allocations_failed(), message);
            EXPECT_EQ(world.take_messages(), told) << number;
        });
    EXPECT_EQ(failures, 3); // of 1, 2 and 4 places
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(ConnectProbe, ARaiseAnywhereClosesAllSocketsOnce) {
    add_target({});
    const int raises = sim::sweep_raises(
        world,
        [&] {
            world.network.opened.clear();
            world.network.closed.clear();
            world.network.hosts["target"] = {{"127.0.0.1", 371}, {"127.0.0.2", 371}, {"127.0.0.3", 371}};
            world.network.connect_errors = {EINPROGRESS, ECONNREFUSED, EINPROGRESS};
            world.network.script = {sim::finds_ready({0}), sim::fails_with(EINTR, 5), sim::times_out()};
            world.network.socket_errors = {{0, ECONNREFUSED}};
            rvzd_nonblock_connect_ping("target");
        },
        [&](int number) {
            EXPECT_EQ(world.live_descriptors(), 0u) << number;
            EXPECT_EQ(world.live_blocks(), 0u) << number;
            EXPECT_EQ(world.network.resolver_lists, 0) << number;
            expect_each_socket_was_closed_once();
        });
    EXPECT_GE(raises, 8);
}

// It lands when all is released, and releases once more.
TEST_F(ConnectProbe, ARaiseDuringTheReleaseFindsNothingLeft) {
    add_target({EINPROGRESS});
    world.network.script = {sim::times_out()};
    sim::noted().raise_at_close = sim::raise_code;
    auto probing = [] { rvzd_nonblock_connect_ping("target"); };
    EXPECT_EQ(sim::run_and_catch(probing), sim::raise_code);
    sim::noted().raise_at_close = 0;
    EXPECT_EQ(world.live_descriptors(), 0u);
    EXPECT_EQ(world.live_blocks(), 0u);
    expect_each_socket_was_closed_once();
}

// A listener on loopback, on a port of the system's choice.
class Listener {
public:
    explicit Listener(const char *address = "127.0.0.1") : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
        inet_pton(AF_INET, address, &address_.sin_addr);
        address_.sin_family = AF_INET;
        socklen_t length = sizeof address_;
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&address_), length), 0);
        EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr *>(&address_), &length), 0);
    }
    ~Listener() {
        for (const int fd : waiting_)
            close(fd);
        close(fd_);
    }
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    void listen_for(int backlog) { EXPECT_EQ(listen(fd_, backlog), 0); }

    // Fills the queue of connections that nobody accepts, until one more gets no answer.
    bool fall_silent() {
        listen_for(0);
        for (int i = 0; i < 16; ++i) {
            waiting_.push_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
            connect(waiting_.back(), reinterpret_cast<sockaddr *>(&address_), sizeof address_);
            if (!stands(waiting_.back()))
                return true;
        }
        return false;
    }
    sim::Endpoint endpoint() const {
        char text[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &address_.sin_addr, text, sizeof text);
        return {text, ntohs(address_.sin_port)};
    }

private:
    // On loopback a connection that is going to stand does so at once; the wait is for a slow machine.
    static bool stands(int fd) {
        fd_set writable;
        FD_ZERO(&writable);
        FD_SET(fd, &writable);
        timeval time_out = {0, 200'000};
        return select(fd + 1, nullptr, &writable, nullptr, &time_out) == 1;
    }

    int fd_;
    sockaddr_in address_ = {};
    std::vector<int> waiting_;
};

class ConnectProbeOnLoopback : public ConnectProbe {
protected:
    ConnectProbeOnLoopback() { world.network.connects = true; }

    int probe_for(std::vector<sim::Endpoint> endpoints) {
        world.network.hosts["target"] = std::move(endpoints);
        world.network.opened.clear();
        world.network.closed.clear();
        world.network.time_outs.clear();
        const auto before = sim::Holdings::now(world);
        const int result = rvzd_nonblock_connect_ping("target");
        EXPECT_EQ(sim::Holdings::now(world), before);
        expect_each_socket_was_closed_once();
        return result;
    }
};

TEST_F(ConnectProbeOnLoopback, AListenerIsAlive) {
    Listener listener;
    listener.listen_for(8);
    EXPECT_EQ(probe_for({listener.endpoint()}), 1);
}

TEST_F(ConnectProbeOnLoopback, APortThatNobodyListensOnIsNot) {
    Listener bound; // which holds the port and does not listen
    EXPECT_EQ(probe_for({bound.endpoint()}), 0);
}

TEST_F(ConnectProbeOnLoopback, ASilentListenerRunsOutOfTime) {
    trace();
    Listener silent;
    ASSERT_TRUE(silent.fall_silent());
    EXPECT_EQ(probe_for({silent.endpoint()}), 0);
    EXPECT_THAT(waits_us(), ElementsAre(whole_wait_us));
    const auto messages = world.take_messages();
    ASSERT_THAT(messages, SizeIs(3));
    EXPECT_EQ(messages[1], gave_up());
    EXPECT_EQ(messages[2], timed_out());
}

TEST_F(ConnectProbeOnLoopback, OneThatAcceptsOutdoesOneThatHangs) {
    Listener silent("127.0.0.2");
    Listener listener;
    ASSERT_TRUE(silent.fall_silent());
    listener.listen_for(8);
    EXPECT_EQ(probe_for({silent.endpoint(), listener.endpoint()}), 1);
    EXPECT_EQ(probe_for({listener.endpoint(), silent.endpoint()}), 1);
}

TEST_F(ConnectProbeOnLoopback, OneThatRefusesDoesNotHideOneThatAccepts) {
    Listener bound("127.0.0.2");
    Listener listener;
    listener.listen_for(8);
    EXPECT_EQ(probe_for({bound.endpoint(), listener.endpoint()}), 1);
    EXPECT_EQ(probe_for({listener.endpoint(), bound.endpoint()}), 1);
}

TEST_F(ConnectProbeOnLoopback, RealDescriptorsAboveTheSystemsSetsAreWaitedFor) {
    Listener listener;
    listener.listen_for(8);
    const int low = socket(AF_INET, SOCK_STREAM, 0);
    const int high = fcntl(low, F_DUPFD, FD_SETSIZE + 100);
    close(low);
    ASSERT_GE(high, FD_SETSIZE + 100);
    world.network.descriptors = {high};
    EXPECT_EQ(probe_for({listener.endpoint()}), 1);
}

} // namespace
