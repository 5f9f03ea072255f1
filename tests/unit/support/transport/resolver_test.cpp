// Names that nobody resolves, within the limit of the thread that asks.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include <netdb.h>

#include <support/ks.h>

namespace {

constexpr char slow_name[] = "takes.for.ever";

std::atomic<int> asked;
std::atomic<int> given_up;
std::atomic<bool> answers;

// The names are asked for until the test lets them have an answer.
class SlowNames : public testing::Test {
protected:
    SlowNames() {
        asked = 0;
        given_up = 0;
        answers = false;
    }
    ~SlowNames() override {
        ks_set_deadline(-1);
        answers = true;
        while (given_up < asked) // or else it would go on in the next test
            std::this_thread::yield();
    }

    static int look_up(const char *name) {
        addrinfo *found = nullptr;
        const int error = sysutl_host_addr(name, nullptr, SOCK_STREAM, &found);
        if (found != nullptr)
            freeaddrinfo(found);
        return error;
    }
};

} // namespace

extern "C" {

int __real_getaddrinfo(const char *host, const char *service, const addrinfo *hints, addrinfo **answer);
int __wrap_getaddrinfo(const char *host, const char *service, const addrinfo *hints, addrinfo **answer);

int __wrap_getaddrinfo(const char *host, const char *service, const addrinfo *hints, addrinfo **answer) {
    if (host == nullptr || strcmp(host, slow_name) != 0)
        return __real_getaddrinfo(host, service, hints, answer);
    ++asked;
    while (!answers)
        std::this_thread::yield();
    const int error = __real_getaddrinfo("127.0.0.1", service, hints, answer);
    ++given_up;
    return error;
}
}

TEST_F(SlowNames, EndWithTheLimitOfTheThread) {
    ks_set_deadline(50);
    EXPECT_EQ(look_up(slow_name), EAI_AGAIN);
    EXPECT_EQ(look_up(slow_name), EAI_AGAIN) << "at once";
}

TEST_F(SlowNames, EndWithAnInterrupt) {
    ks_interrupt_t *interrupt = ks_interrupt_open();
    std::thread other([&] {
        while (asked == 0)
            std::this_thread::yield();
        ks_interrupt(interrupt);
    });
    EXPECT_EQ(look_up(slow_name), EAI_INTR);
    other.join();
    ks_interrupt_close(interrupt);
}

TEST_F(SlowNames, AreWaitedForWithinTheLimit) {
    ks_set_deadline(60'000);
    std::thread other([] {
        while (asked == 0)
            std::this_thread::yield();
        answers = true;
    });
    EXPECT_EQ(look_up(slow_name), 0);
    other.join();
}

TEST_F(SlowNames, AreToldApartFromUnknownOnes) {
    ks_set_deadline(60'000);
    EXPECT_EQ(look_up("127.0.0.1"), 0);
    EXPECT_NE(look_up("300.300.300.300"), 0);
}
