// Answers that are remembered: for one version of the store, up to a bound, and through the registry for as long as
// nobody has changed anything.
#include <tests/unit/server/registry_fixture.h>

#include <server/registry/answers.h>
#include <server/registry/copy.h>
#include <server/registry/sqlite.h>

using namespace velia::server;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr size_t plenty = 1 << 20;

AnswerMemory::Answer answer_of(const std::string &text) {
    return std::make_shared<const Batch>(Batch{{{1, text}}, 0});
}

// What a memory has to have room for to hold `count` answers of this size.
size_t bytes_of_answers(size_t count, const std::string &text) {
    AnswerMemory memory(plenty);
    for (size_t i = 0; i < count; ++i)
        memory.keep("question" + std::to_string(i), 1, answer_of(text));
    return memory.bytes();
}

// A registry whose look-ups by name can be told apart: one that is answered from memory is the same object again.
struct RegistryAnswers : RegistryFixture {
    static constexpr rgy_db_t db = RGY_DB_REGIONS;

    void SetUp() override { ASSERT_EQ(add(db, "-name=r1;"), TBS_ST_OK); }

    AnswerMemory::Answer look_up(const std::string &name, const std::string &region = "") {
        return answer({db, region, "-name", name}, 0, {10, 8000});
    }
    std::vector<std::string> texts_of_look_up(const std::string &name) {
        std::vector<std::string> texts;
        for (const Record &record : look_up(name)->records)
            texts.push_back(record.flex_text);
        return texts;
    }

    Stamps stamps() {
        return learning([](Registry &reader) { return reader.stamps(db); });
    }
    bool is_filled() {
        return learning([](Registry &reader) { return reader.is_filled(); });
    }

    // Another process's, for all that the database knows.
    std::unique_ptr<Store> open_another() {
        bool is_another_new = true;
        return open_sqlite_store(file_name(), is_another_new);
    }
};

} // namespace

TEST(AnswerMemory, FindsAnAnswerUnderItsQuestionAndVersionOnly) {
    AnswerMemory memory(plenty);
    const auto answer = answer_of("text");
    memory.keep("question", 7, answer);
    EXPECT_EQ(memory.find("question", 7), answer);
    EXPECT_EQ(memory.find("question", 8), nullptr);
    EXPECT_EQ(memory.find("another", 7), nullptr);
}

TEST(AnswerMemory, KeepsTheLastAnswerToAQuestion) {
    AnswerMemory memory(plenty);
    memory.keep("question", 7, answer_of("former"));
    const size_t bytes = memory.bytes();
    const auto later = answer_of("latter");
    memory.keep("question", 8, later);
    EXPECT_EQ(memory.find("question", 8), later);
    EXPECT_EQ(memory.find("question", 7), nullptr);
    EXPECT_EQ(memory.bytes(), bytes);
}

TEST(AnswerMemory, ForgetsWhatWasNotAskedForLongestWhenItIsFull) {
    const std::string text(100, 't');
    AnswerMemory memory(bytes_of_answers(2, text));
    memory.keep("question0", 1, answer_of(text));
    memory.keep("question1", 1, answer_of(text));
    ASSERT_NE(memory.find("question0", 1), nullptr);
    memory.keep("question2", 1, answer_of(text));
    EXPECT_NE(memory.find("question0", 1), nullptr);
    EXPECT_EQ(memory.find("question1", 1), nullptr);
    EXPECT_NE(memory.find("question2", 1), nullptr);
    EXPECT_EQ(memory.bytes(), bytes_of_answers(2, text));
}

TEST(AnswerMemory, DoesNotTakeWhatIsLargerThanItself) {
    AnswerMemory memory(bytes_of_answers(1, "text"));
    memory.keep("question0", 1, answer_of("text"));
    memory.keep("question1", 1, answer_of(std::string(5000, 't')));
    EXPECT_NE(memory.find("question0", 1), nullptr);
    EXPECT_EQ(memory.find("question1", 1), nullptr);
}

TEST_F(RegistryAnswers, AreTheSameWhileNothingChanges) {
    const auto first = look_up("r1");
    const auto none = look_up("r2");
    EXPECT_THAT(none->records, IsEmpty());
    EXPECT_EQ(look_up("r1"), first);
    EXPECT_EQ(look_up("r2"), none) << "that there is nothing is an answer, too";
}

TEST_F(RegistryAnswers, AreToldApartByAllThatIsAsked) {
    ASSERT_EQ(add(db, "-name=r1x;-region=x;"), TBS_ST_OK);
    ASSERT_EQ(add(db, "-name=r3;-region=y;-title=r1;"), TBS_ST_OK);
    const auto whole = look_up("r1");
    EXPECT_NE(look_up("r1x"), whole);
    EXPECT_NE(look_up("r1", "x"), whole);
    EXPECT_NE(look_up("r1x", ""), look_up("r1", "x"));
    EXPECT_NE(answer({db, "", "-title", "r1"}, 0, {10, 8000}), whole);
    EXPECT_NE(answer({RGY_DB_DOMAINS, "", "-name", "r1"}, 0, {10, 8000}), whole);
    EXPECT_NE(answer({db, "", "-name", "r1"}, 1, {10, 8000}), whole);
    EXPECT_NE(answer({db, "", "-name", "r1"}, 0, {9, 8000}), whole);
    EXPECT_NE(answer({db, "", "-name", "r1"}, 0, {10, 60000}), whole);
    EXPECT_EQ(look_up("r1"), whole);
}

TEST_F(RegistryAnswers, AreMadeAnewAfterEachUpdate) {
    EXPECT_THAT(texts_of_look_up("r2"), IsEmpty());
    ASSERT_EQ(add(db, "-name=r2;"), TBS_ST_OK);
    EXPECT_THAT(texts_of_look_up("r2"), ElementsAre("-name=r2;"));
    ASSERT_EQ(registry->remove(db, look_up("r2")->records.at(0).id, user), TBS_ST_OK);
    EXPECT_THAT(texts_of_look_up("r2"), IsEmpty());
}

TEST_F(RegistryAnswers, AndStampsFollowWhatIsCommittedBeneathThem) {
    EXPECT_THAT(texts_of_look_up("r1"), ElementsAre("-name=r1;"));
    const Stamps before = stamps();
    ASSERT_TRUE(memory.stamps_of(db));
    EXPECT_EQ(memcmp(&memory.stamps_of(db)->pair, &before.pair, sizeof before.pair), 0);
    open_another()->replace(db, std::nullopt, {{5, "-name=r1;-title=another;"}});
    EXPECT_FALSE(memory.stamps_of(db));
    EXPECT_THAT(texts_of_look_up("r1"), ElementsAre("-name=r1;-title=another;"));
    const Stamps after = stamps();
    EXPECT_NE(memcmp(&before.pair, &after.pair, sizeof before.pair), 0);
    EXPECT_THAT(texts_of_look_up("r1"), ElementsAre("-name=r1;-title=another;")) << "now from memory";
}

TEST_F(RegistryAnswers, AreNotThoseOfARegistryThatWasPutInItsPlace) {
    tbs_uuid_t name = {};
    name.bytes[0] = 1;
    look_up("r1");
    stamps();
    open_another()->begin_anew(name);
    EXPECT_THAT(texts_of_look_up("r1"), IsEmpty());
    const Stamps now = stamps();
    EXPECT_TRUE(tbs_uuid_eq(&now.registry, &name));
}

// What was read may be older than what was committed while it was on its way.
TEST_F(RegistryAnswers, ReadBeforeACommitAreNotLearntAfterIt) {
    const uint64_t version = memory.version();
    Learned learned;
    Registry reader(*store, &learned);
    reader.stamps(db);
    reader.is_filled();
    reader.find({db, "", "-name", "r1"}, 0, {10, 8000}, {});
    open_another()->set_setting("any", "value");
    memory.learn(version, std::move(learned));
    EXPECT_FALSE(memory.stamps_of(db));
    EXPECT_FALSE(memory.is_filled());
    EXPECT_FALSE(memory.find({db, "", "-name", "r1"}, 0, {10, 8000}, {}));
}

TEST_F(RegistryAnswers, WhetherItIsFilledFollowsTheOrigin) {
    EXPECT_FALSE(memory.is_filled());
    EXPECT_FALSE(is_filled());
    EXPECT_EQ(memory.is_filled(), false);
    open_another()->set_setting(origin_setting, origin_copy);
    EXPECT_FALSE(memory.is_filled()) << "it is not known";
    EXPECT_TRUE(is_filled());
    EXPECT_EQ(memory.is_filled(), true);
    open_another()->set_setting(origin_setting, "");
    EXPECT_FALSE(is_filled());
}

TEST_F(RegistryAnswers, ThatAFilterMakesAreNotRemembered) {
    int calls = 0;
    const auto any = [&](const Items &) { return ++calls > 0; };
    const auto first = answer(all_of(db), 0, {10, 8000}, any);
    EXPECT_NE(answer(all_of(db), 0, {10, 8000}, any), first);
    EXPECT_EQ(calls, 2);
}

TEST_F(RegistryAnswers, StoreHasOneVersionUntilSomebodyCommits) {
    const auto another = open_another();
    const auto watch = store->watch_version();
    uint64_t version = watch->now();
    const auto expect_change = [&](const char *what) {
        const uint64_t before = std::exchange(version, watch->now());
        EXPECT_NE(version, before) << what;
        EXPECT_EQ(version, watch->now()) << what;
    };
    EXPECT_EQ(version, watch->now());
    store->set_setting("one", "1");
    expect_change("a commit of its own");
    another->set_setting("one", "2");
    expect_change("a commit of another's");
    another->skip_numbers(5);
    expect_change("another one");
    store->setting("one");
    EXPECT_EQ(version, watch->now()) << "reading is no change";
}

// The log begins anew at its first place when all of it is in the database.
TEST_F(RegistryAnswers, StoreSeesACommitThatIsTheFirstOfItsLog) {
    const auto another = open_another();
    Sqlite third(file_name());
    third.run("PRAGMA wal_checkpoint(TRUNCATE)");
    const auto watch = store->watch_version();
    const uint64_t version = watch->now();
    another->set_setting("one", "1");
    EXPECT_NE(watch->now(), version);
}

TEST_F(RegistryAnswers, WithoutALogNoCommitIsMarked) {
    Sqlite database(file_name() + ".other");
    database.run("CREATE TABLE one (one INTEGER)");
    EXPECT_EQ(database.commit_marks(), nullptr);
    database.write_ahead();
    database.run("INSERT INTO one VALUES (1)");
    const auto *marks = database.commit_marks();
    ASSERT_NE(marks, nullptr);
    const auto first = read_mark(marks);
    EXPECT_EQ(read_mark(marks), first);
    database.run("INSERT INTO one VALUES (1)");
    EXPECT_NE(read_mark(marks), first);
}
