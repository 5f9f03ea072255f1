// A client of the tests in a process of its own.
//
//   system_client find HOST PROGRAM udp|tcp          looks a server up; exit status 0 when it is found
//   system_client loop HOST PROGRAM SECONDS          calls the echo again and again, and prints how often that worked
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include <tests/system/support/client.h>

using namespace velia::system_test;

namespace {

int find_once(const char *host, uint32_t program, const std::string &transport) {
    const auto protocol = transport == "tcp" ? RVZD_PROTOCOL_TCP : RVZD_PROTOCOL_UDP;
    const Handle handle(host, protocol);
    return handle.status() == TBS_ST_OK && find(handle, program, protocol).status == TBS_ST_OK ? EXIT_SUCCESS
                                                                                               : EXIT_FAILURE;
}

int loop(const char *host, uint32_t program, int seconds) {
    using namespace std::chrono;
    const auto end = steady_clock::now() + std::chrono::seconds(seconds);
    for (int good = 0; steady_clock::now() < end;) {
        if (echo(host, program, RVZD_PROTOCOL_UDP, "still there") == "still there")
            printf("good %d\n", ++good);
        else
            printf("bad\n");
        fflush(stdout);
        std::this_thread::sleep_for(milliseconds(20)); // a client's own work
    }
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 5)
        return EXIT_FAILURE;
    const auto program = static_cast<uint32_t>(std::atoi(argv[3]));
    return std::string(argv[1]) == "loop" ? loop(argv[2], program, std::atoi(argv[4]))
                                          : find_once(argv[2], program, argv[4]);
}
