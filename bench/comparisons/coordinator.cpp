// ZooKeeper; only in builds that have found its client, its program and a Java to run that.
#include <bench/comparisons/other_servers.h>

#include <bench/support/site.h>

#include <cstdio>
#include <cstring>

#include <unistd.h>

#ifdef BENCH_WITH_ZOOKEEPER
#include <zookeeper/zookeeper.h>
#endif

namespace bench {

#ifdef BENCH_WITH_ZOOKEEPER

namespace {

constexpr const char *node = "/entry777";
constexpr const char *text = "-name=entry777;-hostname=build7;-region=east;-owner=somebody;";

// What the server needs to keep its nodes; its page for browsers would need forty packages more.
std::string class_path() {
    std::string path;
    for (const char *name : {"zookeeper", "zookeeper-jute", "slf4j-api", "slf4j-nop", "metrics-core", "snappy-java"})
        path += std::string(path.empty() ? "" : ":") + BENCH_JAVA_CLASSES "/" + name + ".jar";
    return path;
}

zhandle_t *client(void *handle) {
    return static_cast<zhandle_t *>(handle);
}

} // namespace

std::unique_ptr<Coordinator> Coordinator::start(const std::string &folder) {
    std::unique_ptr<Coordinator> coordinator(new Coordinator(folder));
    if (coordinator->comes_up())
        return coordinator;
    printf("ZooKeeper does not come up, so there is no comparison with it.\n");
    return nullptr;
}

Coordinator::Coordinator(const std::string &folder)
    : port_(std::to_string(free_port())),
      server_({BENCH_JAVA, "-Dzookeeper.admin.enableServer=false", "-cp", class_path(),
               "org.apache.zookeeper.server.ZooKeeperServerMain", port_, folder}) {}

Coordinator::~Coordinator() {
    if (handle_ != nullptr)
        zookeeper_close(client(handle_));
}

bool Coordinator::comes_up() {
    zoo_set_debug_level(ZOO_LOG_LEVEL_ERROR);
    zoo_set_log_stream(fopen("/dev/null", "we"));
    handle_ = zookeeper_init(("127.0.0.1:" + port_).c_str(), nullptr, 30000, nullptr, nullptr, 0);
    if (handle_ == nullptr)
        return false;
    for (int tries = 0; tries < 3000 && zoo_state(client(handle_)) != ZOO_CONNECTED_STATE; ++tries)
        usleep(10000);
    return zoo_create(client(handle_), node, text, static_cast<int>(strlen(text)), &ZOO_OPEN_ACL_UNSAFE, 0, nullptr,
                      0) == ZOK;
}

bool Coordinator::get() const {
    char bytes[256];
    int length = sizeof bytes;
    return zoo_get(client(handle_), node, 0, bytes, &length, nullptr) == ZOK && length > 40;
}

#else

std::unique_ptr<Coordinator> Coordinator::start(const std::string &) {
    printf("There is no ZooKeeper here, so there is no comparison with it.\n");
    return nullptr;
}

Coordinator::~Coordinator() = default;

bool Coordinator::get() const {
    return false;
}

#endif

} // namespace bench
