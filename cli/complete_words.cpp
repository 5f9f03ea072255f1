// veliactl complete-words: what only a running site knows and a completion offers. The shells call it while somebody
// types, so it is quick, and says nothing when there is nobody to ask.
#include <cli/commands.h>

#include <chrono>
#include <iostream>
#include <memory>
#include <thread>

#include <unistd.h>

#include <cli/broker.h>
#include <cli/completion.h>
#include <cli/registry.h>
#include <cli/streams.h>
#include <support/imsg.h>
#include <support/stg.h>
#include <support/sysutl.h>
#include <veliaxdr/rvzd_hosts.h>
#include <veliaxdr/rvzd_socket.h>

namespace velia::cli {

namespace {

constexpr Duration patience = std::chrono::milliseconds(300);
constexpr std::chrono::seconds life_max{1}; // whatever resolvers and brokers do

struct Arguments {
    std::string kind;
};

constexpr const char *kinds[] = {"hosts"};

Options options_of(Arguments &arguments) {
    return {{.name = "KIND",
             .help = "hosts: this host, its registry and the clients of that",
             .target = &arguments.kind,
             .words = kinds,
             .is_required = true}};
}

int print_words(const Arguments &arguments, const Settings &settings);

constexpr Command commands[] = {{.path = "complete-words",
                                 .help = "Print words that a completion offers",
                                 .examples = {"veliactl complete-words hosts"},
                                 .make = call_of<print_words, options_of>,
                                 .has_common_options = false,
                                 .is_hidden = true}};

void say_nothing(void * /*context*/, int /*severity*/, const char * /*subsystem*/, const imsg_table_t * /*table*/,
                 int /*index*/, const char * /*text*/) {}

// What was found until then is written.
void end_soon() {
    std::thread([] {
        std::this_thread::sleep_for(life_max);
        _exit(exit_done);
    }).detach();
}

void print_word(const char *word) {
    if (word != nullptr && is_safe_word(word))
        std::cout << word << '\n';
}

// One piece of the list; false at its end.
bool print_clients(rvzd_handle_t *handle, int32_t &position) {
    uint32_t count = 0;
    clnt_entry_t *entries = nullptr;
    tbs_boolean_t finished = 0;
    const int32_t before = position;
    if (rvzd_clnt_list_get(handle, 0, 0, &position, &finished, &count, &entries) != TBS_ST_OK)
        return false;
    for (uint32_t i = 0; i < count; ++i) {
        print_word(entries[i].hostinfo.hostname);
        rvzd_hostinfo_free(entries[i].hostinfo);
    }
    stg_free(entries);
    return flush_results() && !finished && position > before;
}

void print_clients_of(const std::string &host) {
    const Broker broker = reach_broker(host, RVZD_PROTOCOL_UDP, patience);
    int32_t position = 0;
    while (broker != nullptr && print_clients(broker.get(), position))
        ;
}

int print_words(const Arguments & /*arguments*/, const Settings & /*settings*/) {
    imsg_set_sink(say_nothing, nullptr);
    end_soon();
    const std::string own = sysutl_myhostname();
    const std::string configured = registry_of("");
    print_word(own.c_str());
    if (configured != own)
        print_word(configured.c_str());
    flush_results();
    print_clients_of(configured.empty() ? own : configured);
    return exit_done;
}

} // namespace

const Commands complete_words_commands = commands;

} // namespace velia::cli
