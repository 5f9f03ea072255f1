// A client of the tests in a process of its own.
//
//   system_client find HOST PROGRAM udp|tcp          looks a server up; exit status 0 when it is found
//   system_client loop HOST PROGRAM SECONDS          calls the echo again and again, and prints how often that worked
//   system_client list HOST PROGRAM udp|tcp          prints the servers that the host's table has for it (-1: all)
//   system_client views CLIENT STOP_FILE             registers views until the file exists; CLIENT is a number, not 0
//   system_client rounds HOST PROGRAM udp|tcp NAME COUNT STOP_FILE LIMIT_MS
//                                                    looks up and adds, so often or until the file exists
//   system_client knob NAME FIRST COUNT READY_FD BEGIN_FD
//                                                    writes so many numbers as the site's value of the setting, once it
//                                                    has said that it is ready and the other pipe is closed
//   system_client knob-and-rival NAME VALUE TEXT CALLS
//                                                    writes it once, with somebody else's entry added in between
//   system_client role TYPE                          makes this host a registry server of this type; prints the status
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <tests/system/client/knobs.h>
#include <tests/system/client/objects.h>
#include <tests/system/client/rival.h>
#include <tests/system/client/rounds.h>
#include <tests/system/client/servers.h>
#include <tests/system/support/client.h>
#include <veliaxdr/rgy_role.h>

using namespace velia::system_test;

namespace {

uint32_t protocol_of(const std::string &name) {
    return name == "tcp" ? RVZD_PROTOCOL_TCP : RVZD_PROTOCOL_UDP;
}

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

// So that several begin at once, however long each took to come here.
void await_beginning(int ready_fd, int begin_fd) {
    char byte = 0;
    if (write(ready_fd, &byte, sizeof byte) != sizeof byte || read(begin_fd, &byte, sizeof byte) != 0)
        exit(EXIT_FAILURE);
}

int change_role(int32_t type) {
    const auto status = rgy_change_server_type(type);
    printf("status %d\n", status);
    return status == TBS_ST_OK ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

int main(int argc, char **argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    const auto is_command = [&](const char *name, size_t count) {
        return words.size() == count && words.front() == name;
    };
    if (is_command("views", 3))
        return register_views(static_cast<uint8_t>(std::stoi(words[1])), words[2]) ? EXIT_SUCCESS : EXIT_FAILURE;
    if (is_command("rounds", 8))
        return run_rounds({argv[2], static_cast<uint32_t>(std::stoul(words[2])), protocol_of(words[3]), words[4],
                           std::stoi(words[5]), words[6], std::stoll(words[7])})
                   ? EXIT_SUCCESS
                   : EXIT_FAILURE;
    if (is_command("knob", 6)) {
        await_beginning(std::stoi(words[4]), std::stoi(words[5]));
        return write_knob(words[1], std::stoi(words[2]), std::stoi(words[3])) ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    if (is_command("knob-and-rival", 5)) {
        let_rival_add(words[3], std::stoi(words[4]));
        return write_knob(words[1], std::stoi(words[2]), 1) ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    if (is_command("role", 2))
        return change_role(std::stoi(words[1]));
    if (is_command("loop", 4))
        return loop(argv[2], static_cast<uint32_t>(std::stoul(words[2])), std::stoi(words[3]));
    if (is_command("list", 4))
        return print_servers(argv[2], std::stoi(words[2]), words[3] == "tcp" ? RVZD_PROTOCOL_TCP : RVZD_PROTOCOL_UDP)
                   ? EXIT_SUCCESS
                   : EXIT_FAILURE;
    if (is_command("find", 4))
        return find_once(argv[2], static_cast<uint32_t>(std::stoul(words[2])), words[3]);
    return EXIT_FAILURE;
}
