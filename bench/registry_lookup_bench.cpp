// A lookup by string that the read cache answers, against the bare cost of the strings of the entry it hands out; and
// flex text both ways, against one pass and one copy. The registry is in this process: an RPC client takes the place of
// the support layer's and answers at once, so that a call every five seconds, when the cache asks again, costs nothing.
#include <bench/support/ratio.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include <benchmark/benchmark.h>

#include <support/ks.h>
#include <support/stg.h>
#include <veliaxdr/rgy_fetch.h>
#include <veliaxdr/rgy_wire.h>

namespace {

constexpr char host[] = "bench-host";
constexpr char flex_text[] =
    "-hostname=alpha;-local_path=/var/storage/views/build7;-global_path=/net/alpha/views/build7;"
    "-region=lab;-owner=marian;-view_uuid=01020304-0506-0708-090a-0b0c0d0e0f10;"
    "-attributes=poolmap=/x,ro;-title=nightly;";
constexpr int items = 8;

// The reply goes to the caller's routine as bytes, as one from a network would.
template <class Record>
clnt_stat deliver(xdrproc_t encode, Record record, xdrproc_t decode, void *reply) {
    char bytes[1024];
    XDR stream;
    xdrmem_create(&stream, bytes, sizeof bytes, XDR_ENCODE);
    if (!encode(&stream, &record))
        return RPC_SYSTEMERROR;
    xdrmem_create(&stream, bytes, sizeof bytes, XDR_DECODE);
    return decode(&stream, reply) ? RPC_SUCCESS : RPC_CANTDECODERES;
}

clnt_stat answer(CLIENT *, rpcproc_t procedure, xdrproc_t, void *, xdrproc_t decode, void *reply, timeval) {
    if (procedure == RVZD_PROC_CONTACT) {
        rvzd_contact_reply_t contact = {};
        contact.protocol_version = RVZD_PROTOCOL_CURRENT;
        return deliver(reinterpret_cast<xdrproc_t>(xdr_rvzd_contact_reply_t), contact, decode, reply);
    }
    if (procedure != RVZD_PROC_RGY_FINDBYSTRING_ENTRY)
        return deliver(reinterpret_cast<xdrproc_t>(xdr_rvzd_null_reply_t), rvzd_null_reply_t{}, decode, reply);
    rgy_svr_entry_t entry = {1, const_cast<char *>(flex_text)};
    rvzd_registry_get_reply_t batch = {};
    batch.version = RGY_PROTOCOL_VERSION;
    batch.count = 1;
    batch.entries = &entry;
    return deliver(reinterpret_cast<xdrproc_t>(xdr_rvzd_registry_get_reply_t), batch, decode, reply);
}

void no_abort(CLIENT *) {}
void no_error(CLIENT *, rpc_err *error) {
    *error = {};
}
bool_t free_results(CLIENT *, xdrproc_t routine, void *results) {
    XDR stream = {};
    stream.x_op = XDR_FREE;
    return routine(&stream, results);
}
void no_destroy(CLIENT *) {}
bool_t no_control(CLIENT *, u_int, void *) {
    return TRUE;
}

std::remove_pointer_t<decltype(CLIENT::cl_ops)> operations = {answer,       no_abort,   no_error,
                                                              free_results, no_destroy, no_control};

} // namespace

// In the place of the support layer's.
extern "C" CLIENT *ks_clntudp_create_sockaddr(const sockaddr *, uint32_t, uint32_t, int32_t, int32_t, int *) {
    static CLIENT client = {};
    client.cl_ops = &operations;
    client.cl_auth = authnone_create();
    return &client;
}

namespace {

void CachedLookup(benchmark::State &state) {
    for (auto _ : state) {
        rgy_cursor_t *cursor = nullptr;
        rgy_entry_t *entry = nullptr;
        int64_t count = 0;
        if (rgy_findbystring_entry(RGY_DB_VIEW_TAG, host, nullptr, RGY_ITEM_TAG, "/views/build7", &cursor, 1, &entry,
                                   &count) != TBS_ST_OK ||
            count != 1)
            exit(1);
        rgy_delete_entry(&entry);
        rgy_close_cursor(&cursor);
    }
}

// The two strings of each item, made and released one by one, as an entry owns them.
void StringsOfAnEntry(benchmark::State &state) {
    char *strings[2 * items];
    for (auto _ : state) {
        for (char *&string : strings) {
            string = static_cast<char *>(malloc(20));
            memcpy(string, flex_text, 20);
            benchmark::DoNotOptimize(string);
        }
        for (char *string : strings)
            free(string);
    }
}

void ExpandFlexText(benchmark::State &state) {
    for (auto _ : state) {
        rgy_flex_entry_t flex;
        rgy_expand_flex_entry(flex_text, &flex);
        rgy_destroy_flex_entry(&flex);
    }
}

void GatherFlexText(benchmark::State &state) {
    rgy_flex_entry_t flex;
    rgy_expand_flex_entry(flex_text, &flex);
    for (auto _ : state) {
        char *text = nullptr;
        rgy_gather_flex_entry(&flex, &text);
        stg_free(text);
    }
    rgy_destroy_flex_entry(&flex);
}

// The least work possible: the text copied once, each of its bytes looked at once.
void OnePassOneCopy(benchmark::State &state) {
    for (auto _ : state) {
        char *copy = static_cast<char *>(malloc(sizeof flex_text));
        memcpy(copy, flex_text, sizeof flex_text);
        size_t separators = 0;
        for (char *at = copy; *at != '\0'; ++at)
            if (*at == '=' || (*at == ';' && (at[1] == '-' || at[1] == '\0')))
                ++separators;
        benchmark::DoNotOptimize(separators);
        free(copy);
    }
}

BENCHMARK(CachedLookup);
BENCHMARK(StringsOfAnEntry);
BENCHMARK(ExpandFlexText);
BENCHMARK(GatherFlexText);
BENCHMARK(OnePassOneCopy);

// A root directory that names this host as the registry's.
std::string make_root() {
    std::string path = (std::filesystem::temp_directory_path() / "velia-bench-XXXXXX").string();
    if (mkdtemp(path.data()) == nullptr)
        exit(1);
    for (const char *directory : {"/config", "/host/config"})
        std::filesystem::create_directories(path + directory);
    std::ofstream(path + "/config/services.conf") << "rvzd 3710\n";
    std::ofstream(path + "/config/hosts.conf") << host << " 127.0.0.1\n";
    std::ofstream(path + "/host/config/rgy_hosts.conf") << host << "\n";
    setenv("VELIA_ROOT", path.c_str(), 1);
    setenv("VELIA_HOSTNAME", host, 1);
    return path;
}

} // namespace

int main(int argc, char **argv) {
    const std::string root = make_root();
    const int result = bench::run(argc, argv,
                                  {{"CachedLookup", "StringsOfAnEntry", 0},
                                   {"ExpandFlexText", "OnePassOneCopy", 0},
                                   {"GatherFlexText", "OnePassOneCopy", 0}},
                                  {{"CachedLookup", 1500}});
    std::filesystem::remove_all(root);
    return result;
}
