#include <csignal>
#include <type_traits>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <support/imsg.h>
#include <support/pfm.h>

// So a frame has one layout for every program, whether or not it is compiled with the names of POSIX.
static_assert(std::is_same_v<jmp_buf, sigjmp_buf>);

namespace {

// Runs the body in a frame; the code of the raise that landed, 0 for none.
template <class Body>
[[gnu::noinline]] int landing_code(Body &&body) {
    pfm_frame_t frame;
    frame.code = sigsetjmp(frame.jump, 1);
    if (pfm_cleanup_start(&frame, 0))
        return frame.code;
    body();
    pfm_cleanup_rls(&frame);
    return 0;
}

// Exit status of a child that runs the body.
template <class Body>
int status_of_child(Body &&body) {
    const pid_t child = fork();
    if (child == 0) {
        body();
        _exit(99);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status;
}

} // namespace

TEST(Raise, LandsInTheInnermostFrameWithItsCode) {
    int inner = 0;
    const int outer = landing_code([&] { inner = landing_code([] { pfm_raise(7); }); });
    EXPECT_EQ(inner, 7);
    EXPECT_EQ(outer, 0);
}

TEST(Raise, PassedOnReachesTheOuterFrame) {
    bool undone = false;
    const int outer = landing_code([&] {
        const int code = landing_code([] { pfm_raise(-3); });
        undone = true;
        pfm_raise(code);
    });
    EXPECT_TRUE(undone);
    EXPECT_EQ(outer, -3);
}

TEST(Raise, CodeZeroLandsAsOneSoThatALandingIsTold) {
    EXPECT_EQ(landing_code([] { pfm_raise(0); }), 1);
}

TEST(Raise, RestoresTheSignalMaskOfTheFrame) {
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR2);
    landing_code([&] {
        pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
        pfm_raise(1);
    });
    sigset_t now;
    pthread_sigmask(SIG_SETMASK, nullptr, &now);
    EXPECT_FALSE(sigismember(&now, SIGUSR2));
}

TEST(Raise, WithoutAFrameEndsTheProcessThroughItsExitActions) {
    int pipe_ends[2];
    ASSERT_EQ(pipe(pipe_ends), 0);
    const int status = status_of_child([&] {
        pfm_on_exit([](void *fd) { (void)!write(*static_cast<int *>(fd), "x", 1); }, &pipe_ends[1]);
        pfm_raise(0x104);
    });
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 4);
    close(pipe_ends[1]); // so that a read of what the child did not write ends
    char byte = 0;
    EXPECT_EQ(read(pipe_ends[0], &byte, 1), 1);
    close(pipe_ends[0]);
}

TEST(Raise, WithoutAFrameNeverLooksLikeSuccess) {
    EXPECT_EQ(WEXITSTATUS(status_of_child([] { pfm_raise(0x100); })), 1);
}

TEST(PostedRaise, LandsAtOnceOutsideOfAStretch) {
    EXPECT_EQ(landing_code([] { pfm_post_raise(5); }), 5);
}

TEST(PostedRaise, WaitsForTheOutermostEnable) {
    int steps = 0;
    const int code = landing_code([&] {
        pfm_inhibit();
        pfm_inhibit();
        pfm_post_raise(9);
        ++steps;
        pfm_enable();
        ++steps;
        pfm_enable();
        ++steps;
    });
    EXPECT_EQ(code, 9);
    EXPECT_EQ(steps, 2);
}

TEST(PostedRaise, OfSeveralTheFirstIsDelivered) {
    const int code = landing_code([] {
        pfm_inhibit();
        pfm_post_raise(2);
        pfm_post_raise(3);
        pfm_enable();
    });
    EXPECT_EQ(code, 2);
    EXPECT_EQ(landing_code([] {
                  pfm_inhibit();
                  pfm_enable();
              }),
              0);
}

TEST(PostedRaise, MayComeFromASignalHandler) {
    const auto old = signal(SIGUSR1, [](int) { pfm_post_raise(6); });
    bool reached_end_of_stretch = false;
    const int code = landing_code([&] {
        pfm_inhibit();
        raise(SIGUSR1);
        reached_end_of_stretch = true;
        pfm_enable();
    });
    signal(SIGUSR1, old);
    EXPECT_TRUE(reached_end_of_stretch);
    EXPECT_EQ(code, 6);
}

TEST(Inhibit, DepthOfTheFrameIsRestoredByALanding) {
    landing_code([] {
        pfm_inhibit();
        pfm_inhibit();
        pfm_raise(1);
    });
    // At depth 0 a posted raise lands at once.
    EXPECT_EQ(landing_code([] { pfm_post_raise(8); }), 8);
}

TEST(Inhibit, ALandingInsideAStretchStaysInside) {
    bool came_back = false;
    const int code = landing_code([&] {
        pfm_inhibit();
        landing_code([] { pfm_raise(1); });
        pfm_post_raise(4);
        came_back = true;
        pfm_enable();
    });
    EXPECT_TRUE(came_back);
    EXPECT_EQ(code, 4);
}

TEST(Inhibit, WhatWasPostedInAStretchThatARaiseLeftIsNotLost) {
    const int first = landing_code([] {
        pfm_inhibit();
        pfm_post_raise(11);
        pfm_raise(10);
    });
    EXPECT_EQ(first, 10);
    EXPECT_EQ(landing_code([] {
                  pfm_inhibit();
                  pfm_enable();
              }),
              11);
}

TEST(FatalStopDeathTest, PanicTellsThePlaceAndAborts) {
    EXPECT_EXIT(pfm_panic("rvzd_clnt", 2027), testing::KilledBySignal(SIGABRT), "panic at rvzd_clnt, line 2027");
}

TEST(FatalStopDeathTest, FailedAssertionTellsItsExpression) {
    EXPECT_EXIT(pfm_assert_fail("h != NULL", "registry", 12), testing::KilledBySignal(SIGABRT),
                "assertion failed: h != NULL at registry, line 12");
}

TEST(FatalStopDeathTest, OneEnableTooManyIsAFailedAssertion) {
    EXPECT_EXIT(pfm_enable(), testing::KilledBySignal(SIGABRT), "pfm_enable has its pfm_inhibit");
}

TEST(FatalStopDeathTest, ReleasingAnOuterFrameFirstIsAFailedAssertion) {
    const auto release_outer_first = [] {
        pfm_frame_t outer;
        pfm_frame_t inner;
        outer.code = 0;
        inner.code = 0;
        pfm_cleanup_start(&outer, 0);
        pfm_cleanup_start(&inner, 0);
        pfm_cleanup_rls(&outer);
    };
    EXPECT_EXIT(release_outer_first(), testing::KilledBySignal(SIGABRT), "innermost");
}

TEST(OnExit, RunsTheLastRegisteredFirst) {
    int pipe_ends[2];
    ASSERT_EQ(pipe(pipe_ends), 0);
    static int out;
    out = pipe_ends[1];
    status_of_child([] {
        for (const char *letter : {"a", "b", "c"})
            pfm_on_exit([](void *text) { (void)!write(out, text, 1); }, const_cast<char *>(letter));
        exit(0);
    });
    close(pipe_ends[1]);
    char order[4] = {};
    EXPECT_EQ(read(pipe_ends[0], order, 3), 3);
    EXPECT_STREQ(order, "cba");
    close(pipe_ends[0]);
}
