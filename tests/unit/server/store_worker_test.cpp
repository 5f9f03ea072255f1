// A thread with a store: what updates that wait together cost, and what becomes of the others where one fails.
#include <server/registry/store_worker.h>

#include <future>

#include <server/registry/role.h>
#include <server/registry/sqlite.h>
#include <tests/unit/server/registry_fixture.h>

using namespace velia::server;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct StoreWorkers : RegistryFixture {
    StoreWorkers() { uv_loop_init(&loop); }
    ~StoreWorkers() override {
        worker.reset();
        uv_run(&loop, UV_RUN_NOWAIT);
        EXPECT_EQ(uv_loop_close(&loop), 0);
    }

    void start(bool is_writer) {
        worker = std::make_unique<StoreWorker>(&loop, Worker::Shape{{100, 100, 100}, 100, 0}, is_writer);
        worker->use([name = file_name()] { return existing_store(name); });
        worker->wait();
    }

    // Until it is let go, the thread does nothing else; so what is asked meanwhile waits together.
    void hold() {
        const auto is_held = std::make_shared<std::promise<void>>();
        worker->change(
            [is_held, gate = gate.get_future().share()](std::unique_ptr<Store> &) {
                is_held->set_value();
                gate.wait();
            },
            [] {});
        is_held->get_future().wait();
    }
    void let_go() {
        gate.set_value();
        worker->wait();
    }

    void ask(std::function<void(Store &)> work) {
        EXPECT_TRUE(worker->submit({}, {std::move(work), [this](const StoreFailure &failure) {
                                            statuses.push_back(failure.status);
                                            words.push_back(failure.words);
                                        }}));
    }
    void ask_to_add(const std::string &name) {
        ask([this, name](Store &of_thread) {
            Registry writer(of_thread);
            writer.add(RGY_DB_REGIONS, writer.stamps(RGY_DB_REGIONS).pair, "-name=" + name + ";", user);
        });
    }
    // Each commit leaves another mark.
    uint64_t commits_of(const std::function<void()> &body) {
        Sqlite database(file_name());
        database.write_ahead();
        const auto counter = [&] {
            Statement query(database, "SELECT count(*) FROM entry"); // reads what is there by now
            query.step();
            query.reset();
            return read_mark(database.commit_marks())[1];
        };
        const uint64_t before = counter() & UINT32_MAX;
        body();
        return (counter() & UINT32_MAX) - before;
    }

    uv_loop_t loop;
    std::promise<void> gate;
    std::unique_ptr<StoreWorker> worker;
    std::vector<tbs_status_t> statuses;
    std::vector<std::string> words;
};

} // namespace

TEST_F(StoreWorkers, UpdatesThatWaitTogetherShareOneCommit) {
    start(true);
    EXPECT_EQ(commits_of([&] {
                  hold();
                  for (const char *name : {"a", "b", "c"})
                      ask_to_add(name);
                  EXPECT_THAT(statuses, IsEmpty());
                  let_go();
              }),
              1u);
    EXPECT_THAT(statuses, ElementsAre(TBS_ST_OK, TBS_ST_OK, TBS_ST_OK));
    EXPECT_THAT(texts_of(all_of(RGY_DB_REGIONS)), ElementsAre("-name=a;", "-name=b;", "-name=c;"));
}

TEST_F(StoreWorkers, TheOneThatFailsIsTheOnlyOne) {
    start(true);
    hold();
    ask_to_add("a");
    ask([](Store &) { throw StoreError("no room"); });
    ask_to_add("c");
    let_go();
    EXPECT_THAT(statuses, ElementsAre(TBS_ST_OK, TBS_ST_ERROR, TBS_ST_OK));
    EXPECT_THAT(words, ElementsAre("", "no room", ""));
    EXPECT_THAT(texts_of(all_of(RGY_DB_REGIONS)), ElementsAre("-name=a;", "-name=c;"));
}

// It may have been done, with all that waited together.
TEST_F(StoreWorkers, WhatIsUncertainIsNotTriedAgain) {
    start(true);
    int tries = 0;
    hold();
    ask([&](Store &) { ++tries; });
    ask([](Store &) { throw StoreUncertain("who knows"); });
    let_go();
    EXPECT_EQ(tries, 1);
    EXPECT_THAT(statuses, ElementsAre(TBS_ST_ERROR, TBS_ST_ERROR));
    EXPECT_THAT(words, ElementsAre("who knows", "who knows"));
}

// Not one after the other, each for as long as one may have to wait.
TEST_F(StoreWorkers, WhatSomebodyElseHasIsWaitedForOnceForAllThatWaitTogether) {
    start(true);
    hold();
    for (const char *name : {"a", "b", "c"})
        ask_to_add(name);
    Sqlite another(file_name());
    const Transaction lock(another);
    constexpr std::chrono::seconds wait(3);
    wait_for_others(std::chrono::milliseconds(wait).count());
    const auto begin = std::chrono::steady_clock::now();
    let_go();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 3 * wait) << "one after the other";
    EXPECT_THAT(statuses, ElementsAre(TBS_ST_TRY_AGAIN, TBS_ST_TRY_AGAIN, TBS_ST_TRY_AGAIN));
}

TEST_F(StoreWorkers, WhoHasItIsToldOnceUntilItIsToBeHadAgain) {
    start(true);
    const auto lines_of = [&](const std::vector<std::function<void(Store &)>> &works) {
        testing::internal::CaptureStderr();
        hold();
        for (const auto &work : works)
            ask(work);
        let_go();
        gate = {};
        const std::string told = testing::internal::GetCapturedStderr();
        size_t lines = 0;
        for (size_t at = told.find("a backup has it"); at != std::string::npos; at = told.find("a backup", at + 1))
            ++lines;
        return lines;
    };
    const auto busy = [](Store &) { throw StoreBusy("a backup has it"); };
    const auto away = [](Store &) { throw StoreAway("a backup has it"); };
    const auto work = [](Store &) {};
    EXPECT_EQ(lines_of({busy}), 1u);
    EXPECT_EQ(lines_of({busy, busy}), 0u) << "the same still";
    EXPECT_EQ(lines_of({work}), 0u);
    EXPECT_EQ(lines_of({busy, busy, work}), 1u) << "one transaction";
    EXPECT_EQ(lines_of({away}), 0u) << "told elsewhere";
    EXPECT_THAT(statuses, testing::Contains(TBS_ST_TRY_AGAIN).Times(7));
}

// A daemon that is to end ends.
TEST_F(StoreWorkers, NobodyWaitsForWhatSomebodyElseHasOnceItIsOver) {
    start(true);
    hold();
    ask_to_add("a");
    Sqlite another(file_name());
    const Transaction lock(another);
    gate.set_value();
    wait_for_others(0);
    worker->wait();
    EXPECT_THAT(statuses, ElementsAre(TBS_ST_TRY_AGAIN));
}

TEST_F(StoreWorkers, WhatThereIsNoMemoryForIsTheOnlyOneThatFails) {
    start(true);
    hold();
    ask_to_add("a");
    ask([](Store &) { throw std::bad_alloc(); });
    ask_to_add("c");
    let_go();
    EXPECT_THAT(statuses, ElementsAre(TBS_ST_OK, TBS_ST_ERROR, TBS_ST_OK));
    EXPECT_THAT(texts_of(all_of(RGY_DB_REGIONS)), ElementsAre("-name=a;", "-name=c;"));
}

TEST_F(StoreWorkers, WithoutAStoreThereIsNoServer) {
    start(false);
    worker->use(nullptr);
    ask([](Store &) {});
    worker->wait();
    worker->use([name = file_name()] { return existing_store(name + ".absent"); });
    ask([](Store &) {});
    worker->wait();
    EXPECT_THAT(statuses, ElementsAre(TBS_ST_NO_SERVER, TBS_ST_NO_SERVER));
    EXPECT_FALSE(std::filesystem::exists(file_name() + ".absent"));
}

TEST_F(StoreWorkers, SeesWhatOthersHaveMadeOfTheRegistrysName) {
    start(false);
    Stamps stamps;
    const auto read = [&](Store &of_thread) { stamps = of_thread.stamps(RGY_DB_REGIONS); };
    ask(read);
    worker->wait();
    tbs_uuid_t name = {};
    name.bytes[0] = 1;
    store->begin_anew(name);
    ask(read);
    worker->wait();
    EXPECT_TRUE(tbs_uuid_eq(&stamps.registry, &name));
}

TEST_F(StoreWorkers, WhatStandsInAnswersWhileTheStoreIsAway) {
    start(false);
    bool is_substitute = false;
    const auto look = [&](Store &of_thread) {
        of_thread.stamps(RGY_DB_REGIONS);
        is_substitute = of_thread.is_substitute();
    };
    worker->use([]() -> std::unique_ptr<Store> { throw StoreAway("away"); });
    ask(look);
    worker->wait();
    worker->use_meanwhile([name = file_name()] { return existing_copy(name + ".none"); });
    ask(look);
    worker->wait();
    worker->use_meanwhile([name = file_name()] { return existing_copy(name); });
    ask(look);
    worker->wait();
    EXPECT_THAT(statuses, ElementsAre(TBS_ST_TRY_AGAIN, TBS_ST_TRY_AGAIN, TBS_ST_OK));
    EXPECT_TRUE(is_substitute);
    worker->use([name = file_name()] { return existing_store(name); });
    ask(look);
    worker->wait();
    EXPECT_FALSE(is_substitute) << "it is there again";
}
