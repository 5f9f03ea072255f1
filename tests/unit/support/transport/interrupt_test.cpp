// What ends a wait from outside: another thread, a signal handler, a raise.
#include "silent_peers.h"

#include <cerrno>
#include <csignal>
#include <thread>

#include <dirent.h>

#include <support/pfm.h>

namespace {

ks_interrupt_t *of_test;

size_t open_descriptors() {
    size_t count = 0;
    DIR *folder = opendir("/proc/self/fd");
    while (readdir(folder) != nullptr)
        ++count;
    closedir(folder);
    return count;
}

// Signals its own process until it is told to stop, so that one comes while the call waits, whenever that is.
class Signals {
public:
    Signals(void (*handler)(int)) : target_(pthread_self()) {
        struct sigaction action = {};
        action.sa_handler = handler;
        action.sa_flags = SA_RESTART;
        sigaction(SIGUSR1, &action, &before_);
    }
    ~Signals() { sigaction(SIGUSR1, &before_, nullptr); }

    // Once the server has the call, which then waits or is about to.
    void send_when_called(const RpcServer &server) {
        thread_ = std::thread([this, &server] {
            while (server.calls() == 0)
                std::this_thread::yield();
            pthread_kill(target_, SIGUSR1);
        });
    }
    void join() { thread_.join(); }

private:
    pthread_t target_;
    struct sigaction before_ = {};
    std::thread thread_;
};

class Interrupt : public Silence {
protected:
    Interrupt() { of_test = ks_interrupt_open(); }
    ~Interrupt() override { ks_interrupt_close(of_test); }
};

INSTANTIATE_TEST_SUITE_P(Of, Interrupt, testing::Values(SOCK_DGRAM, SOCK_STREAM), transport_name);

class PostedRaise : public Silence {};

INSTANTIATE_TEST_SUITE_P(Of, PostedRaise, testing::Values(SOCK_DGRAM, SOCK_STREAM), transport_name);

} // namespace

TEST_P(Interrupt, OfAnotherThreadEndsTheCall) {
    std::thread other([this] {
        while (server_.calls() == 0)
            std::this_thread::yield();
        ks_interrupt(of_test);
    });
    EXPECT_EQ(call(), RPC_INTR);
    EXPECT_EQ(error_number(), EINTR);
    other.join();
}

TEST_P(Interrupt, OfASignalHandlerEndsTheCall) {
    Signals signals([](int) { ks_interrupt(of_test); });
    signals.send_when_called(server_);
    EXPECT_EQ(call(), RPC_INTR);
    signals.join();
}

TEST_P(Interrupt, LastsUntilItIsCleared) {
    EXPECT_FALSE(ks_is_interrupted());
    ks_interrupt(of_test);
    EXPECT_TRUE(ks_is_interrupted());
    EXPECT_EQ(call(), RPC_INTR);
    EXPECT_EQ(call(), RPC_INTR);
    EXPECT_EQ(server_.calls(), 0u) << "nothing is begun";
    ks_interrupt_clear(of_test);
    EXPECT_FALSE(ks_is_interrupted());
    ks_set_deadline(50);
    EXPECT_EQ(call(), RPC_TIMEDOUT);
}

TEST_P(Interrupt, IsOfTheThreadThatOpenedIt) {
    ks_interrupt(of_test);
    std::thread([] { EXPECT_FALSE(ks_is_interrupted()); }).join();
}

TEST_P(Interrupt, OfAnotherSignalEndsNothing) {
    Signals signals([](int) {});
    signals.send_when_called(server_);
    uint32_t reply = 0;
    EXPECT_EQ(call_echo(client_, 1, &reply, {0, 300'000}), RPC_TIMEDOUT);
    signals.join();
}

TEST(InterruptedConnection, ComesToAnEnd) {
    const FullListener listener;
    ks_interrupt_t *interrupt = ks_interrupt_open();
    ASSERT_NE(interrupt, nullptr);
    EXPECT_EQ(ks_interrupt_open(), interrupt) << "a thread has one";
    std::thread other([&] { ks_interrupt(interrupt); });
    int socket_fd = -1;
    EXPECT_EQ(ks_clnttcp_create_sockaddr(listener.address(), silent_program, 1, &socket_fd, 0, 0), nullptr);
    EXPECT_EQ(ks_rpc_get_createerr()->stat, RPC_INTR);
    EXPECT_EQ(ks_rpc_get_createerr()->error_number, EINTR);
    other.join();
    ks_interrupt_close(interrupt);
}

TEST_P(PostedRaise, EndsTheCallAndLandsBehindIt) {
    constexpr int code = 17;
    Signals signals([](int) { pfm_post_raise(code); });
    while (GetParam() == SOCK_STREAM && server_.connections() == 0) // whose descriptor counts, too
        std::this_thread::yield();
    const size_t descriptors = open_descriptors();
    signals.send_when_called(server_);
    volatile bool has_returned = false;
    pfm_frame_t frame;
    frame.code = sigsetjmp(frame.jump, 1);
    if (!pfm_cleanup_start(&frame, 0)) {
        call();
        has_returned = true;
        pfm_cleanup_rls(&frame);
    }
    EXPECT_EQ(frame.code, code);
    EXPECT_FALSE(has_returned) << "it lands at the end of the call";
    EXPECT_EQ(open_descriptors(), descriptors);
    signals.join();
    EXPECT_EQ(error_number(), EINTR);
}

TEST_P(PostedRaise, InACallersStretchEndsTheCallWithAStatus) {
    Signals signals([](int) { pfm_post_raise(17); });
    signals.send_when_called(server_);
    pfm_frame_t frame;
    frame.code = sigsetjmp(frame.jump, 1);
    if (!pfm_cleanup_start(&frame, 0)) {
        pfm_inhibit();
        EXPECT_EQ(call(), RPC_INTR);
        pfm_enable();
        ADD_FAILURE() << "it lands at the end of the stretch";
        pfm_cleanup_rls(&frame);
    }
    EXPECT_EQ(frame.code, 17);
    signals.join();
}

TEST(RaiseInCreation, WhileAClientIsMadeLeavesNoDescriptor) {
    const FullListener listener;
    static bool was_signalled;
    was_signalled = false;
    struct sigaction action = {};
    action.sa_handler = [](int) {
        was_signalled = true;
        pfm_post_raise(17);
    };
    struct sigaction before;
    sigaction(SIGALRM, &action, &before);
    const size_t descriptors = open_descriptors();
    volatile int socket_fd = -1;
    pfm_frame_t frame;
    frame.code = sigsetjmp(frame.jump, 1);
    if (!pfm_cleanup_start(&frame, 0)) {
        const itimerval soon = {{}, {0, 20'000}};
        setitimer(ITIMER_REAL, &soon, nullptr);
        int made_fd = -1;
        ks_clnttcp_create_sockaddr(listener.address(), silent_program, 1, &made_fd, 0, 0);
        socket_fd = made_fd;
        pfm_cleanup_rls(&frame);
    }
    EXPECT_TRUE(was_signalled);
    EXPECT_EQ(frame.code, 17);
    EXPECT_EQ(socket_fd, -1);
    EXPECT_EQ(open_descriptors(), descriptors);
    sigaction(SIGALRM, &before, nullptr);
}
