// Settings out of a host's file, out of the site's entries, and as they are spelled. An input is three parts with an
// empty line between: a spelling, flex texts of entries a line each, and the contents of the file. The registry is in
// this process: an RPC client takes the place of the support layer's and hands the entries out.
#include <fuzz/harness.h>

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <vector>

#include <support/ks.h>
#include <support/stg.h>
#include <veliaxdr/rgy_wire.h>
#include <veliaxdr/rvzd_knob.h>

namespace {

constexpr uint32_t view_cache_size = 1;
constexpr size_t line_bytes_max = 1023;

std::vector<std::string> entries;

void hand_out(const rvzd_registry_get_req_t &request, rvzd_registry_get_reply_t &reply) {
    reply.version = RGY_PROTOCOL_VERSION;
    if (request.cursor >= entries.size())
        return;
    reply.count = 1;
    reply.entries = static_cast<rgy_svr_entry_t *>(stg_malloc(sizeof(rgy_svr_entry_t)));
    reply.entries[0] = {request.cursor + 1, stg_strdup(entries[request.cursor].c_str())};
    reply.cursor = request.cursor + 1 < entries.size() ? request.cursor + 1 : 0;
}

clnt_stat answer(CLIENT *, rpcproc_t procedure, xdrproc_t, void *request, xdrproc_t, void *reply, timeval) {
    if (procedure == RVZD_PROC_CONTACT)
        static_cast<rvzd_contact_reply_t *>(reply)->protocol_version = RVZD_PROTOCOL_CURRENT;
    if (procedure == RVZD_PROC_RGY_GET_ENTRY)
        hand_out(*static_cast<const rvzd_registry_get_req_t *>(request),
                 *static_cast<rvzd_registry_get_reply_t *>(reply));
    return RPC_SUCCESS;
}

void no_abort(CLIENT *) {}
void no_error(CLIENT *, rpc_err *error) {
    *error = {};
}
bool_t free_reply(CLIENT *, xdrproc_t routine, void *reply) {
    xdr_free(routine, static_cast<char *>(reply));
    return TRUE;
}
void no_destroy(CLIENT *) {}
bool_t no_control(CLIENT *, u_int, void *) {
    return TRUE;
}

std::remove_pointer_t<decltype(CLIENT::cl_ops)> operations = {answer,     no_abort,   no_error,
                                                              free_reply, no_destroy, no_control};

// Takes the text up to the next empty line.
std::string take_part(std::string_view &text) {
    const auto end = text.find("\n\n");
    const std::string part(text.substr(0, end));
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 2);
    return part;
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    for (size_t at = 0; at < text.size();) {
        const auto end = std::min(text.find('\n', at), text.size());
        lines.emplace_back(text.substr(at, end - at).c_str());
        at = end + 1;
    }
    return lines;
}

// What the rules make of a file.
void check_host_file(std::string_view contents) {
    char value[2048] = "";
    tbs_boolean_t found = 77;
    const auto status =
        rvzd_knoblet_get_value_spelling(view_cache_size, KNOBLET_HOST, nullptr, &found, sizeof value, value);
    FUZZ_REQUIRE((status == TBS_ST_OK) == !contents.empty());
    FUZZ_REQUIRE(found == (contents.empty() ? 0 : 1));
    const std::string line(contents.substr(0, std::min(contents.find('\n'), line_bytes_max)));
    FUZZ_REQUIRE(strcmp(value, line.c_str()) == 0);
    int32_t number = 0;
    const auto read = rvzd_knob_get_integer(view_cache_size, nullptr, &number);
    FUZZ_REQUIRE(read == TBS_ST_OK || read == TBS_ST_INVALID_ARG || (contents.empty() && read == TBS_ST_ERROR));
}

// A value that is found stands in one of the entries.
void check_site() {
    char value[RVZD_KNOB_TEXT_SIZE] = "";
    tbs_boolean_t found = 77;
    const auto status =
        rvzd_knoblet_get_value_spelling(view_cache_size, KNOBLET_SITE, nullptr, &found, sizeof value, value);
    FUZZ_REQUIRE(found == 0 || found == 1);
    FUZZ_REQUIRE(status == TBS_ST_OK || found == 0);
    FUZZ_REQUIRE(found == 0 || std::any_of(entries.begin(), entries.end(), [&](const std::string &entry) {
                     return entry.find(value) != std::string::npos;
                 }));
    char origin[32] = "";
    const auto told = rvzd_knoblet_origin(view_cache_size, KNOBLET_SITE, nullptr, sizeof origin, origin);
    FUZZ_REQUIRE(found == 0 || (told == TBS_ST_OK && std::stoul(origin) <= entries.size()));
}

// What is taken is in range, and is read again.
void check_spelling(const std::string &spelling) {
    if (rvzd_knoblet_set_value_from_spelling(view_cache_size, KNOBLET_HOST, nullptr, spelling.c_str()) != TBS_ST_OK)
        return;
    int32_t number = 0;
    // Of a spelling with a line feed the file's first line counts, and a long one is cut.
    if (strcspn(spelling.c_str(), "\n") != strlen(spelling.c_str()) || strlen(spelling.c_str()) > line_bytes_max)
        return;
    FUZZ_REQUIRE(rvzd_knob_get_integer(view_cache_size, nullptr, &number) == TBS_ST_OK);
    FUZZ_REQUIRE(rvzd_knob_range_check_integer(view_cache_size, number) == TBS_ST_OK);
}

} // namespace

// In the place of the support layer's.
extern "C" CLIENT *ks_clntudp_create_sockaddr(const sockaddr *, uint32_t, uint32_t, int32_t, int32_t, int *) {
    static CLIENT client = {};
    client.cl_ops = &operations;
    client.cl_auth = authnone_create();
    return &client;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fuzz::Root root;
    static fuzz::Messages messages;
    std::string_view text(reinterpret_cast<const char *>(data), size);
    setenv("VELIA_HOSTNAME", "alpha", 1);
    if (entries.empty()) {
        root.write("config/hosts.conf", "alpha 127.0.0.1\n");
        root.write("config/services.conf", "rvzd 40371\n");
        root.write("host/config/rgy_hosts.conf", "alpha\n");
    }
    const std::string spelling = take_part(text);
    entries = lines_of(take_part(text));
    root.write("host/config/view_cache_size", text);
    check_host_file(text);
    check_site();
    check_spelling(spelling);
    return 0;
}
