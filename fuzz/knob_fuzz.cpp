// Settings out of a host's file, out of the site's entries, and as they are spelled. An input is three parts with an
// empty line between: a spelling, flex texts of entries a line each, and the contents of the file. The registry is in
// this process: an RPC client takes the place of the support layer's and hands the entries out.
#include <fuzz/harness.h>

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <vector>

#include <support/ks.h>
#include <veliaxdr/rgy_wire.h>
#include <veliaxdr/rvzd_knob.h>

namespace {

constexpr uint32_t view_cache_size = 1;
constexpr size_t line_bytes_max = 1023;

std::vector<std::string> entries;

constexpr size_t reply_size = 65536;

// A reply goes through a routine of the library's around that of the record; its type is known there alone.
[[clang::no_sanitize("function")]] bool_t run_reply(xdrproc_t routine, XDR &stream, void *reply) {
    return routine(&stream, reply);
}

// Sends the record as bytes, each where it can be read only as far as it goes.
template <class Record>
clnt_stat send(bool_t (*encode)(XDR *, Record *), Record &record, xdrproc_t routine, void *reply) {
    static std::vector<char> bytes(reply_size);
    XDR stream;
    xdrmem_create(&stream, bytes.data(), reply_size, XDR_ENCODE);
    if (!encode(&stream, &record))
        return RPC_CANTDECODERES;
    const std::vector<char> sent(bytes.data(), bytes.data() + xdr_getpos(&stream));
    xdrmem_create(&stream, const_cast<char *>(sent.data()), static_cast<u_int>(sent.size()), XDR_DECODE);
    return run_reply(routine, stream, reply) ? RPC_SUCCESS : RPC_CANTDECODERES;
}

clnt_stat hand_out(uint64_t cursor, xdrproc_t routine, void *reply) {
    rvzd_registry_get_reply_t batch = {};
    rgy_svr_entry_t entry = {};
    batch.version = RGY_PROTOCOL_VERSION;
    if (cursor < entries.size()) {
        entry = {cursor + 1, entries[cursor].data()};
        batch.count = 1;
        batch.entries = &entry;
        batch.cursor = cursor + 1 < entries.size() ? cursor + 1 : 0;
    }
    return send(xdr_rvzd_registry_get_reply_t, batch, routine, reply);
}

clnt_stat answer(CLIENT *, rpcproc_t procedure, xdrproc_t, void *request, xdrproc_t routine, void *reply, timeval) {
    if (procedure == RVZD_PROC_CONTACT) {
        rvzd_contact_reply_t contact = {{}, RVZD_PROTOCOL_CURRENT};
        return send(xdr_rvzd_contact_reply_t, contact, routine, reply);
    }
    if (procedure == RVZD_PROC_RGY_GET_ENTRY)
        return hand_out(static_cast<const rvzd_registry_get_req_t *>(request)->cursor, routine, reply);
    rvzd_null_reply_t nothing = {};
    return send(xdr_rvzd_null_reply_t, nothing, routine, reply);
}

void no_abort(CLIENT *) {}
void no_error(CLIENT *, rpc_err *error) {
    *error = {};
}
bool_t free_reply(CLIENT *, xdrproc_t routine, void *reply) {
    XDR stream = {};
    stream.x_op = XDR_FREE;
    return run_reply(routine, stream, reply);
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
