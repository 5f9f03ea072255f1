// How many times a call enters the system, counted by a tracer as strace counts them.
#include <gtest/gtest.h>

#include <csignal>
#include <map>

#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <support/ks.h>

#include <common/local_road.h>

#include "../rpc_server.h"
#include "../test_site.h"

namespace {

constexpr int calls = 50;
constexpr uint32_t usual_program = 390600;

// Between two of these the calls are made.
void mark() {
    syscall(SYS_getppid);
}

[[noreturn]] void make_calls(const sockaddr *address, int type, uint32_t program) {
    int socket_fd = -1;
    CLIENT *client = type == SOCK_DGRAM ? ks_clntudp_create_sockaddr(address, program, 1, 3, 0, &socket_fd)
                                        : ks_clnttcp_create_sockaddr(address, program, 1, &socket_fd, 0, 0);
    uint32_t reply = 0;
    bool are_all_right = client != nullptr && call_echo(client, 1, &reply) == RPC_SUCCESS;
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
    mark();
    for (int i = 0; are_all_right && i < calls; ++i)
        are_all_right = call_echo(client, 1, &reply) == RPC_SUCCESS;
    mark();
    _exit(are_all_right ? 0 : 1);
}

// What the child did between its marks, by the number of the system call.
std::map<long, int> trace(pid_t child) {
    std::map<long, int> counts;
    int marks = 0;
    int status = 0;
    waitpid(child, &status, 0);
    ptrace(PTRACE_SETOPTIONS, child, nullptr, reinterpret_cast<void *>(PTRACE_O_TRACESYSGOOD));
    for (;;) {
        ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
        if (waitpid(child, &status, 0) != child || !WIFSTOPPED(status))
            break;
        __ptrace_syscall_info info = {};
        if (WSTOPSIG(status) != (SIGTRAP | 0x80) ||
            ptrace(PTRACE_GET_SYSCALL_INFO, child, reinterpret_cast<void *>(sizeof info), &info) <= 0 ||
            info.op != PTRACE_SYSCALL_INFO_ENTRY)
            continue;
        const long number = static_cast<long>(info.entry.nr);
        if (number == SYS_getppid)
            ++marks;
        else if (marks == 1)
            ++counts[number];
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "a call failed";
    EXPECT_EQ(marks, 2);
    return counts;
}

// Random numbers for transactions are fetched for many calls at once.
int total(const std::map<long, int> &counts) {
    int sum = 0;
    for (const auto &[number, count] : counts)
        if (number != SYS_getrandom)
            sum += count;
    return sum;
}

std::map<long, int> counts_of(int type, const sockaddr *address, uint32_t program) {
    const pid_t child = fork();
    if (child == 0)
        make_calls(address, type, program);
    return trace(child);
}

std::map<long, int> counts_of(int type) {
    const RpcServer server(AF_INET, type);
    return counts_of(type, server.address(), usual_program);
}

std::string told(const std::map<long, int> &counts) {
    std::string text;
    for (const auto &[number, count] : counts)
        text += std::to_string(number) + ": " + std::to_string(count) + "\n";
    return text;
}

} // namespace

// A reply that takes longer than a short receive, on a machine that is busy, costs a poll; so a few more are let pass.
TEST(SystemCalls, OfAUdpCallAreTwo) {
    const auto counts = counts_of(SOCK_DGRAM);
    EXPECT_LT(total(counts), calls * 5 / 2) << told(counts);
    EXPECT_GE(total(counts), calls * 2) << told(counts);
    EXPECT_LE(counts.count(SYS_getrandom) ? counts.at(SYS_getrandom) : 0, 1);
}

TEST(SystemCalls, OfATcpCallAreThree) {
    const auto counts = counts_of(SOCK_STREAM);
    EXPECT_LT(total(counts), calls * 7 / 2) << told(counts);
    EXPECT_GE(total(counts), calls * 3) << told(counts);
}

// Whatever transport the client was made for, and that of connections, too: sending tells their end.
TEST(SystemCalls, OfACallToTheBrokerOfThisHostAreTwo) {
    const TestSite site;
    for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
        const RpcServer nobody(AF_INET, type);
        ks_sockaddr_storage_t address;
        sysutl_copy_sockaddr(&address, nobody.address());
        const RpcServer broker(site.path(""), address);
        const auto counts = counts_of(type, nobody.address(), velia::local_road_program);
        EXPECT_LT(total(counts), calls * 5 / 2) << told(counts);
        EXPECT_GE(total(counts), calls * 2) << told(counts);
        EXPECT_EQ(nobody.calls(), 0u);
    }
}
