// Handles, their connections and the cache behind them in a child of this process.
#include <tests/unit/rvzd_clnt/broker_fixture.h>

#include <cstdlib>
#include <future>
#include <thread>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tests/sim/noted.h>

namespace {

// What `work` gives in a child.
template <class Work>
bool holds_in_child(Work &&work) {
    const pid_t child = fork();
    if (child == 0)
        _exit(work() && !testing::Test::HasFailure() ? EXIT_SUCCESS : EXIT_FAILURE);
    int status = -1;
    return waitpid(child, &status, 0) == child && status == 0;
}

// The same with another thread of the parent in a call.
template <class Work>
bool holds_in_child_of_a_caller(Work &&work) {
    std::promise<void> is_in_call;
    std::promise<void> end;
    std::thread caller([&] {
        ivlthread_mutex_lock(&rvzd_call_lock);
        is_in_call.set_value();
        end.get_future().wait();
        ivlthread_mutex_unlock(&rvzd_call_lock);
    });
    is_in_call.get_future().wait();
    const bool holds = holds_in_child(work);
    end.set_value();
    caller.join();
    return holds;
}

class HandlesAfterAFork : public BrokerTest {
protected:
    HandlesAfterAFork() {
        for (int i = 1; i <= 8; ++i)
            world.add_host(host(i), {"127.0.1." + std::to_string(i)});
    }
    static std::string host(int number) { return "host" + std::to_string(number); }
    void rest(int number) { rest_record(host(number).c_str()); }
    bool is_cached(int number) {
        const size_t lookups = world.lookups.size();
        rest(number);
        return world.lookups.size() == lookups;
    }
};

TEST_F(HandlesAfterAFork, TheNextConnectionTakesThePlaceOfTheParents) {
    rvzd_handle_t *handle = handle_to("alpha");
    EXPECT_TRUE(holds_in_child([&] {
        rvzd_free_handle(handle_to("alpha"));
        return world.peer.count(RVZD_PROC_CONTACT) == 2 && world.live_clients() == 1 && world.live_descriptors() == 1 &&
               sim::noted().authenticators == 1;
    }));
    rvzd_free_handle(handle);
}

TEST_F(HandlesAfterAFork, AConnectionThatCannotBeMadeAnewIsTold) {
    rvzd_handle_t *handle = handle_to("alpha");
    EXPECT_TRUE(holds_in_child([&] {
        world.unreachable = {"127.0.0.2"};
        const bool is_refused = rvzd_get_rpc_clnt(handle) == nullptr;
        const auto errors = world.take_errors();
        return is_refused && world.live_clients() == 0 && world.live_descriptors() == 0 && !errors.empty() &&
               errors.back() == message_of(IMSG_ERROR, _rvzd_rvzd_msg_table, RVZD_MSG_CANNOT_CONTACT, "alpha");
    }));
    rvzd_free_handle(handle);
}

TEST_F(HandlesAfterAFork, OfAParentInACallTheDescriptorIsClosedAndTheClientNotTouched) {
    rvzd_handle_t *handle = handle_to("alpha");
    EXPECT_TRUE(holds_in_child_of_a_caller([&] {
        const int fd = handle->cached->socket_fd;
        rvzd_free_handle(handle);
        return fcntl(fd, F_GETFD) < 0 && world.live_clients() == 1;
    }));
    rvzd_free_handle(handle);
}

TEST_F(HandlesAfterAFork, OfAParentInACallNoRecordIsKept) {
    rest(1);
    rvzd_handle_t *handle = handle_to("host2");
    EXPECT_TRUE(holds_in_child_of_a_caller([&] {
        const bool is_out_of_the_table = handle->cached->hash_bucket == -1;
        return is_out_of_the_table && !is_cached(1) && !is_cached(2);
    }));
    rvzd_free_handle(handle);
}

TEST_F(HandlesAfterAFork, OfAParentInACallNoIdleRecordCounts) {
    rest(1);
    rest(2);
    EXPECT_TRUE(holds_in_child_of_a_caller([&] {
        const size_t of_parent = world.live_clients();
        rest(3);
        rest(4);
        const bool both_stay_connected = world.live_clients() == of_parent + 2;
        for (int number = 5; number <= 7; ++number)
            rest(number);
        const bool five_are_kept = is_cached(3);
        rest(8);
        return both_stay_connected && five_are_kept;
    }));
}

} // namespace
