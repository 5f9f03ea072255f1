// The page of figures: its text form, what an HTTP peer may send, and the bounds of its connections. Real sockets, and
// a loop that the test runs.
#include <arpa/inet.h>
#include <array>
#include <functional>
#include <map>
#include <optional>
#include <sched.h>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <server/config/place.h>
#include <server/daemon/metrics.h>
#include <server/metrics/exposition.h>
#include <server/metrics/http_endpoint.h>
#include <server/metrics/http_request.h>
#include <server/metrics/listener.h>
#include <support/sysutl.h>
#include <tests/exposition_page.h>
#include <veliaxdr/rgy_local.h>

using namespace velia::server;
using exposition_page::Page;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr int64_t deadline_ms = 20000;

int status_of(const std::string &head) {
    HttpRequest request;
    return request.feed(head) ? request.status() : 0;
}

} // namespace

TEST(Exposition, EscapesWhatWouldEndALabelOrALine) {
    Exposition page;
    page.family("velia_x", "gauge", "One\\two\nthree \"four\".");
    page.sample({{"a", "q\"b\\n\nz"}, {"b", ""}}, 7);
    EXPECT_EQ(page.take(), "# HELP velia_x One\\\\two\\nthree \"four\".\n# TYPE velia_x gauge\n"
                           "velia_x{a=\"q\\\"b\\\\n\\nz\",b=\"\"} 7\n");
    EXPECT_EQ(seconds_text(0), "0.000000");
    EXPECT_EQ(seconds_text(12'000'345), "12.000345");
    EXPECT_EQ(seconds_text(UINT64_MAX), "18446744073709.551615");
}

TEST(CallFigures, AreSpreadOverBoundsThatHoldAllBelow) {
    CallFigures calls;
    for (const int64_t time : {0, 63, 64, 255, 256, 1 << 26})
        calls.add(4, time);
    const auto spread = calls.spreads().at(0);
    EXPECT_EQ(spread.procedure, 4u);
    EXPECT_EQ(spread.calls, 6u);
    EXPECT_EQ(spread.total_us, 63u + 64 + 255 + 256 + (1u << 26));
    EXPECT_EQ(spread.up_to[0], 2u);
    EXPECT_EQ(spread.up_to[1], 4u);
    EXPECT_EQ(spread.up_to[2], 5u);
    EXPECT_EQ(spread.up_to.back(), 5u);
}

// Each breaks one rule of a page that keeps them all.
TEST(ExpositionPage, TellsWhatIsNotOfTheForm) {
    const std::string head = "# HELP a_b One.\n# TYPE a_b gauge\n";
    const std::string histogram = "# HELP h Two.\n# TYPE h histogram\n";
    const std::string buckets = histogram + "h_bucket{le=\"1\"} 2\nh_bucket{le=\"+Inf\"} 3\n";
    const std::string good_pages[] = {
        head + "a_b 1\n", head + "a_b{x=\"a\\\\\\\"\\n\",y=\"\"} -1.5e3 123\n\n# a word\n", head + "a_b{} NaN\n",
        "# HELP a_total \\\\ \\n \"x\".\n# TYPE a_total counter\na_total +Inf\n", buckets + "h_sum 4\nh_count 3\n"};
    for (const std::string &good : good_pages)
        EXPECT_THAT(Page(good).faults(), testing::IsEmpty()) << good;
    const std::string bad_pages[] = {
        "a_b 1\n",
        head + "a_b 1",
        head + "a_b\n",
        head + "a_b x\n",
        head + "a_b  1\n",
        head + "a_b 0x1\n",
        head + "a_b 1 \n",
        head + "a_b 1 x\n",
        head + "a_b 1\na_b 2\n",
        head + "a-b 1\n",
        head + "1a 1\n",
        head + "a_b{x=1} 1\n",
        head + "a_b{x=\"1} 1\n",
        head + "a_b{x=\"\\t\"} 1\n",
        head + "a_b{x:y=\"1\"} 1\n",
        head + "a_b{x=\"1\",x=\"1\"} 1\n",
        head + "a_b{x=\"1\",} 1\n",
        head + "a_b{x=\"1\" 1\n",
        head + "a_c 1\n",
        head + head,
        "# TYPE a gauge\na 1\n",
        "# HELP a \n# TYPE a gauge\n",
        "# HELP a \\x\n# TYPE a gauge\n",
        "# HELP a x\n# TYPE a number\n",
        "# HELP a x\n# TYPE a counter\n",
        "# HELP a_total x\n# TYPE a_total gauge\n",
        "# HELP a_sum x\n# TYPE a_sum gauge\n",
        "# HELP  x\n",
        buckets + "h_sum 4\n",
        buckets + "h_count 3\n",
        buckets + "h_sum 4\nh_count 2\n",
        buckets + "h 3\n",
        histogram + "h_sum 4\nh_count 3\n",
        histogram + "h_bucket 3\nh_sum 4\nh_count 3\n",
        histogram + "h_bucket{le=\"1\"} 3\nh_sum 4\nh_count 3\n",
        histogram + "h_bucket{le=\"1\"} 2\nh_bucket{le=\"+Inf\"} 1\nh_sum 4\nh_count 1\n",
        histogram + "h_bucket{le=\"2\"} 1\nh_bucket{le=\"1\"} 1\nh_bucket{le=\"+Inf\"} 1\nh_sum 4\nh_count 1\n"};
    for (const std::string &bad : bad_pages)
        EXPECT_THAT(Page(bad).faults(), testing::Not(testing::IsEmpty())) << bad;
}

TEST(Metrics, AreAPageThatCheckersOfTheFormTake) {
    DaemonFigures figures;
    figures.started = 1000;
    figures.connections = 3;
    figures.servers = 5;
    figures.servers_busy = 2;
    figures.takes_updates = true;
    figures.registry.role = RGY_SVR_MASTER;
    figures.registry.term.number = 7;
    figures.registry.entries = 11;
    CallFigures calls;
    calls.add(99999, 1'500'000);
    const Page master(metrics_text(figures, {4096, 100}, calls, 2000));
    EXPECT_THAT(master.faults(), testing::IsEmpty());
    EXPECT_EQ(master.value("velia_start_time_seconds"), 1000);
    EXPECT_EQ(master.value("velia_connections"), 3);
    EXPECT_EQ(master.value("velia_servers", {{"state", "busy"}}), 2);
    EXPECT_EQ(master.value("velia_servers", {{"state", "other"}}), 3);
    EXPECT_EQ(master.value("velia_registry_role", {{"role", "master"}}), 1);
    EXPECT_EQ(master.value("velia_registry_role", {{"role", "standby"}}), 0);
    EXPECT_EQ(master.value("velia_registry_takes_updates"), 1);
    EXPECT_EQ(master.value("velia_registry_term"), 7);
    EXPECT_EQ(master.value("velia_registry_superseded"), 0);
    EXPECT_EQ(master.value("velia_registry_entries"), 11);
    EXPECT_EQ(master.value("velia_registry_size_bytes"), 4096);
    EXPECT_EQ(master.value("velia_registry_log_size_bytes"), 100);
    EXPECT_FALSE(master.has_family("velia_registry_lag_seconds"));
    const std::pair<const std::string, std::string> procedure = {"procedure", "procedure_99999"};
    EXPECT_EQ(master.value("velia_request_duration_seconds_bucket", {procedure, {"le", "1.048575"}}), 0);
    EXPECT_EQ(master.value("velia_request_duration_seconds_bucket", {procedure, {"le", "4.194303"}}), 1);
    EXPECT_EQ(master.value("velia_request_duration_seconds_bucket", {procedure, {"le", "+Inf"}}), 1);
    EXPECT_EQ(master.value("velia_request_duration_seconds_sum", {procedure}), 1.500000);
    EXPECT_EQ(master.value("velia_request_duration_seconds_count", {procedure}), 1);

    figures.registry.term.heard = 8;
    figures.takes_updates = false;
    calls.add(99999, int64_t{1} << 40);
    const Page superseded(metrics_text(figures, {}, calls, 2000));
    EXPECT_EQ(superseded.value("velia_registry_superseded"), 1);
    EXPECT_EQ(superseded.value("velia_registry_takes_updates"), 0);
    EXPECT_EQ(superseded.value("velia_request_duration_seconds_bucket", {procedure, {"le", "67.108863"}}), 1);
    EXPECT_EQ(superseded.value("velia_request_duration_seconds_bucket", {procedure, {"le", "+Inf"}}), 2)
        << "of longer ones, too";
    figures.registry.role = RGY_SVR_NONE;
    EXPECT_FALSE(Page(metrics_text(figures, {}, calls, 2000)).has_family("velia_registry_copy_failing"));

    figures.registry.role = RGY_SVR_STANDBY;
    figures.registry.failure = "no answer";
    EXPECT_EQ(Page(metrics_text(figures, {}, calls, 2000)).value("velia_registry_superseded"), 0)
        << "its master was, of which it has heard";
    EXPECT_FALSE(Page(metrics_text(figures, {}, calls, 2000)).has_family("velia_registry_lag_seconds"));
    figures.registry.current = 1990;
    const Page standby(metrics_text(figures, {}, calls, 2000));
    EXPECT_THAT(standby.faults(), testing::IsEmpty());
    EXPECT_EQ(standby.value("velia_registry_lag_seconds"), 10);
    EXPECT_EQ(standby.value("velia_registry_copy_failing"), 1);
    EXPECT_EQ(Page(metrics_text(figures, {}, calls, 1000)).value("velia_registry_lag_seconds"), 0)
        << "a clock that was set back";
}

TEST(HttpRequest, GetsThePageOrAWordWhyNot) {
    EXPECT_EQ(status_of("GET /metrics HTTP/1.1\r\nHost: build7\r\nAccept: */*\r\n\r\n"), 200);
    EXPECT_EQ(status_of("GET /metrics?x=1 HTTP/1.0\r\n\r\n"), 200);
    EXPECT_EQ(status_of("HEAD /metrics HTTP/1.1\r\nHost: x\r\n\r\n"), 200);
    EXPECT_EQ(status_of("GET /metrics HTTP/1.1\r\nHost: x\r\n\r\nGET /other HTTP/1.1\r\n\r\n"), 200);
    EXPECT_EQ(status_of("GET / HTTP/1.1\r\nHost: x\r\n\r\n"), 404);
    EXPECT_EQ(status_of("GET /metrics/ HTTP/1.1\r\nHost: x\r\n\r\n"), 404);
    EXPECT_EQ(status_of("POST /metrics HTTP/1.1\r\nHost: x\r\n\r\n"), 405);
    EXPECT_EQ(status_of("GET /metrics HTTP/2.0\r\n\r\n"), 505);
    for (const char *nonsense :
         {"\r\n\r\n", "GET\r\n\r\n", "GET /metrics\r\n\r\n", "GET  HTTP/1.1\r\n\r\n", "G@T /metrics HTTP/1.1\r\n\r\n",
          "GET /metrics HTTX/1.1\r\n\r\n", "GET /metrics HTTP/1.1\r\nno field\r\n\r\n",
          "GET /metrics HTTP/1.1\r\n: empty\r\n\r\n", "GET /metrics HTTP/1.1\r\nbad name: x\r\n\r\n"})
        EXPECT_EQ(status_of(nonsense), 400) << nonsense;
    EXPECT_EQ(status_of(std::string("GE\0", 3)), 400) << "without waiting for more";
    EXPECT_EQ(status_of("GET /" + std::string(5000, 'x')), 431);
    const std::string head = "GET /metrics HTTP/1.1\r\nX: ";
    const std::string longest = head + std::string(HTTP_HEAD_BYTES_MAX - head.size() - 4, 'x') + "\r\n\r\n";
    EXPECT_EQ(status_of(longest), 200);
    EXPECT_EQ(status_of(head + "x" + longest.substr(head.size())), 431);
    EXPECT_EQ(status_of("GET /metrics HTTP/1.1\r\nHost: x\r\n"), 0) << "more has to come";
}

TEST(HttpRequest, ComesInPiecesOfAnySize) {
    const std::string whole = "GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n";
    for (size_t size = 1; size < whole.size(); ++size) {
        HttpRequest request;
        bool is_whole = false;
        for (size_t at = 0; at < whole.size(); at += size) {
            EXPECT_FALSE(is_whole);
            is_whole = request.feed(std::string_view(whole).substr(at, size));
        }
        EXPECT_TRUE(is_whole) << size;
        EXPECT_EQ(request.status(), 200) << size;
    }
}

TEST(HttpAnswer, TellsItsLengthAndType) {
    EXPECT_EQ(http_answer(200, "a 1\n", true),
              "HTTP/1.1 200 OK\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\nContent-Length: 4\r\n"
              "Connection: close\r\n\r\na 1\n");
    EXPECT_THAT(http_answer(200, "a 1\n", false), testing::EndsWith("close\r\n\r\n"));
    EXPECT_THAT(http_answer(405, "", true), HasSubstr("Allow: GET, HEAD\r\n"));
}

TEST(Place, IsAnAddressWithAPortOrAPath) {
    EXPECT_EQ(place_of_text("/run/velia/metrics")->path, "/run/velia/metrics");
    EXPECT_EQ(place_of_text("127.0.0.1:9100")->address.ipv4.sin_port, htons(9100));
    EXPECT_EQ(place_of_text("[::1]:9100")->address.base.sa_family, AF_INET6);
    for (const std::string text :
         {"", "9100", ":9100", "127.0.0.1", "127.0.0.1:", "127.0.0.1:0", "127.0.0.1:65536", "127.0.0.1:91x",
          "build7:9100", "::1:9100", "[::1:9100", "[127.0.0.1]:9100", "metrics"})
        EXPECT_FALSE(place_of_text(text)) << text;
    EXPECT_FALSE(place_of_text("/" + std::string(200, 'x')));
}

namespace {

class HttpPeers : public testing::Test {
protected:
    HttpPeers() {
        uv_loop_init(&loop);
        UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(fd.get(), base(), sizeof address), 0);
        EXPECT_EQ(listen(fd.get(), 64), 0);
        socklen_t length = sizeof address;
        getsockname(fd.get(), base(), &length);
        listener = std::move(fd);
    }
    ~HttpPeers() override {
        endpoint.reset();
        uv_run(&loop, UV_RUN_DEFAULT);
        EXPECT_EQ(uv_loop_close(&loop), 0);
    }
    void serve(const HttpLimits &limits = {}) {
        endpoint.emplace(
            &loop, std::move(listener), [this] { return page; }, limits);
    }
    sockaddr *base() { return reinterpret_cast<sockaddr *>(&address); }

    bool run_until(const std::function<bool()> &condition) {
        const int64_t end_ms = monotonic_ms() + deadline_ms;
        while (!condition()) {
            if (monotonic_ms() > end_ms)
                return false;
            uv_run(&loop, UV_RUN_NOWAIT);
            sched_yield();
        }
        return true;
    }
    UniqueFd peer(const std::string &words = "") {
        UniqueFd fd(socket(AF_INET, SOCK_STREAM, 0));
        EXPECT_EQ(connect(fd.get(), base(), sizeof address), 0);
        EXPECT_EQ(send(fd.get(), words.data(), words.size(), MSG_NOSIGNAL), static_cast<ssize_t>(words.size()));
        return fd;
    }
    // Until its end; false for one that was broken off.
    bool read_to_end(const UniqueFd &fd, std::string &text) {
        bool is_clean = false;
        EXPECT_TRUE(run_until([&] {
            std::array<char, 65536> piece;
            const ssize_t count = recv(fd.get(), piece.data(), piece.size(), MSG_DONTWAIT);
            if (count > 0)
                text.append(piece.data(), static_cast<size_t>(count));
            is_clean = count == 0;
            return count == 0 || (count < 0 && errno != EAGAIN);
        }));
        return is_clean;
    }
    std::string answer_to(const std::string &words) {
        std::string text;
        EXPECT_TRUE(read_to_end(peer(words), text)) << words;
        return text;
    }

    const std::string good = "GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n";
    uv_loop_t loop = {};
    sockaddr_in address = {};
    UniqueFd listener;
    std::string page = "velia_x 1\n";
    std::optional<HttpEndpoint> endpoint;
};

} // namespace

TEST_F(HttpPeers, GetThePage) {
    serve();
    EXPECT_THAT(answer_to(good), testing::EndsWith("\r\n\r\nvelia_x 1\n"));
    EXPECT_THAT(answer_to("HEAD /metrics HTTP/1.1\r\n\r\n"), Not(HasSubstr("velia_x")));
    EXPECT_THAT(answer_to("nonsense\r\n\r\n"), StartsWith("HTTP/1.1 400 "));
    EXPECT_TRUE(run_until([&] { return endpoint->connections() == 0; }));
}

// What is behind a request is read, so that the answer is not broken off.
TEST_F(HttpPeers, ThatSayMoreThanIsNeededGetTheirAnswerAllTheSame) {
    serve();
    EXPECT_THAT(answer_to(good + std::string(20000, 'x')), StartsWith("HTTP/1.1 200 "));
    EXPECT_THAT(answer_to(std::string(100000, 'x')), StartsWith("HTTP/1.1 431 "));
}

TEST_F(HttpPeers, ThatTakeALongPageSlowlyGetAllOfIt) {
    page = std::string(8'000'000, 'x');
    serve({16, deadline_ms});
    const UniqueFd slow = peer(good);
    for (int i = 0; i < 100; ++i)
        uv_run(&loop, UV_RUN_NOWAIT);
    EXPECT_THAT(answer_to("GET / HTTP/1.1\r\n\r\n"), StartsWith("HTTP/1.1 404 ")) << "nobody waits for another";
    std::string text;
    EXPECT_TRUE(read_to_end(slow, text));
    EXPECT_GT(text.size(), page.size());
}

TEST_F(HttpPeers, ThatDoNotComeToTheirEndAreDropped) {
    serve({16, 300});
    page = std::string(8'000'000, 'x');
    const UniqueFd silent = peer();
    const UniqueFd within_its_head = peer("GET /metr");
    const UniqueFd does_not_read = peer(good);
    const UniqueFd stays = peer("GET / HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(run_until([&] { return endpoint->connections() == 4; }));
    EXPECT_TRUE(run_until([&] { return endpoint->connections() == 0; }));
}

TEST_F(HttpPeers, ThatAreTooManyLoseTheOldestAndANewcomerIsServed) {
    serve({4, deadline_ms});
    std::vector<UniqueFd> many;
    for (int i = 0; i < 40; ++i)
        many.push_back(peer("GET"));
    EXPECT_THAT(answer_to(good), HasSubstr("velia_x 1"));
    EXPECT_LE(endpoint->connections(), 4u);
}

TEST_F(HttpPeers, ThatGoBeforeTheirAnswerCostNothing) {
    serve();
    for (int i = 0; i < 50; ++i) {
        const UniqueFd gone = peer(i % 2 == 0 ? good : "GET /");
        const linger at_once = {1, 0};
        setsockopt(gone.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    }
    EXPECT_THAT(answer_to(good), HasSubstr("velia_x 1"));
    EXPECT_TRUE(run_until([&] { return endpoint->connections() == 0; }));
}

namespace {

struct MetricsSocket : HttpPeers {
    MetricsSocket() {
        std::string name = testing::TempDir() + "/velia-XXXXXX";
        directory = mkdtemp(name.data());
        path = directory + "/metrics";
    }
    ~MetricsSocket() override {
        metrics.close();
        unlink(path.c_str());
        rmdir(directory.c_str());
    }
    UniqueFd local_peer() const {
        sockaddr_un local = {};
        local.sun_family = AF_UNIX;
        path.copy(local.sun_path, sizeof local.sun_path - 1);
        UniqueFd fd(socket(AF_UNIX, SOCK_STREAM, 0));
        if (connect(fd.get(), reinterpret_cast<sockaddr *>(&local), sizeof local) != 0 ||
            send(fd.get(), good.data(), good.size(), MSG_NOSIGNAL) < 0)
            return {};
        return fd;
    }
    bool is_served() {
        const UniqueFd fd = local_peer();
        std::string text;
        return fd && read_to_end(fd, text) && text.find("velia_x 1") != std::string::npos;
    }
    std::string told_at(const std::string &place) {
        testing::internal::CaptureStderr();
        metrics.serve_at(place);
        return testing::internal::GetCapturedStderr();
    }

    std::string directory;
    std::string path;
    MetricsListener metrics{&loop, [this] { return page; }};
};

} // namespace

TEST_F(MetricsSocket, IsThereAsLongAsItIsAskedForAndForNobodyElse) {
    EXPECT_EQ(told_at(path), "");
    struct stat status = {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0660u);
    EXPECT_TRUE(is_served());
    EXPECT_EQ(told_at(path), "") << "the same again";
    EXPECT_TRUE(is_served());
    EXPECT_EQ(told_at(""), "");
    EXPECT_NE(stat(path.c_str(), &status), 0);
}

TEST_F(MetricsSocket, TakesThePlaceOfWhatIsLeftButOfNothingThatLivesOrIsNoSocket) {
    {
        MetricsListener killed(&loop, [] { return std::string(); });
        killed.serve_at(path);
        rename(path.c_str(), (path + ".kept").c_str()); // so that it is not removed
    }
    rename((path + ".kept").c_str(), path.c_str());
    EXPECT_EQ(told_at(path), "");
    EXPECT_TRUE(is_served());
    {
        testing::internal::CaptureStderr();
        MetricsListener other(&loop, [] { return std::string(); });
        other.serve_at(path);
        EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("Address already in use"));
    }
    EXPECT_TRUE(is_served()) << "of who was there first";
    told_at("");
    fclose(fopen(path.c_str(), "w"));
    EXPECT_THAT(told_at(path), HasSubstr("Address already in use"));
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
}

TEST_F(MetricsSocket, OfAnAddressThatIsTakenIsTold) {
    const std::string taken = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    EXPECT_THAT(told_at(taken), HasSubstr("The figures cannot be had at \"" + taken + "\": Address already in use"));
    listener.reset();
    EXPECT_EQ(told_at(taken), "");
    EXPECT_THAT(answer_to(good), HasSubstr("velia_x 1"));
}
