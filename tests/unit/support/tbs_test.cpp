#include <cerrno>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <support/stg.h>
#include <support/tbs.h>

#include <tests/bad_files.h>

#include "alloc_probe.h"
#include "message_recorder.h"
#include "test_site.h"

TEST(Status, EveryStatusHasAText) {
    for (const tbs_status_t status :
         {0, 1001, 1002, 1004, 1006, 1007, 1026, 1029, 1031, 1035, 1052, 1062, 1063, 1072, 1078, 1084})
        EXPECT_EQ(std::string(tbs_strerror(status)).find("Unknown"), std::string::npos) << status;
    EXPECT_STREQ(tbs_strerror(4711), "Unknown status 4711");
}

TEST(Status, TheTextOfAnUnknownOneStays) {
    const char *first = tbs_strerror(4711);
    EXPECT_STREQ(tbs_strerror(-4712), "Unknown status -4712");
    EXPECT_STREQ(first, "Unknown status 4711");
    EXPECT_EQ(tbs_strerror(4711), first);
    const char *of_another_thread = nullptr;
    std::thread([&] { of_another_thread = tbs_strerror(4713); }).join();
    EXPECT_STREQ(of_another_thread, "Unknown status 4713");
}

TEST(Status, UnknownOnesWithoutEndCostNoMemoryWithoutEnd) {
    for (int status = 100'000; status < 102'000; ++status)
        EXPECT_EQ(std::string(tbs_strerror(status)).find("Unknown status"), 0u);
    EXPECT_STREQ(tbs_strerror(101'999), "Unknown status");
}

TEST(Status, OfErrnoValues) {
    EXPECT_EQ(tbs_errno2status(0), TBS_ST_OK);
    EXPECT_EQ(tbs_errno2status(ENOENT), TBS_ST_NOT_SET);
    EXPECT_EQ(tbs_errno2status(EACCES), TBS_ST_NO_ACCESS);
    EXPECT_EQ(tbs_errno2status(ENOMEM), TBS_ST_NO_MEMORY);
    EXPECT_EQ(tbs_errno2status(EINVAL), TBS_ST_INVALID_ARG);
    EXPECT_EQ(tbs_errno2status(ETIMEDOUT), TBS_ST_RPC_FAILED);
    EXPECT_EQ(tbs_errno2status(ENAMETOOLONG), TBS_ST_NAME_TOO_LONG);
    EXPECT_EQ(tbs_errno2status(EXDEV), TBS_ST_ERROR);
    EXPECT_EQ(tbs_errno2status(-1), TBS_ST_ERROR);
}

TEST(Uuid, TextFormIsReadBackInAnyCaseAndWithoutDashes) {
    tbs_uuid_t uuid;
    for (uint8_t i = 0; i < 16; ++i)
        uuid.bytes[i] = static_cast<uint8_t>(i * 17);
    char text[TBS_UUID_STR_SIZE];
    EXPECT_EQ(tbs_uuid_to_str(&uuid, text), text);
    EXPECT_STREQ(text, "00112233-4455-6677-8899-aabbccddeeff");
    for (const char *form : {"00112233-4455-6677-8899-aabbccddeeff", "00112233-4455-6677-8899-AABBCCDDEEFF",
                             "00112233445566778899aabbccddeeff"}) {
        tbs_uuid_t read = {};
        EXPECT_EQ(tbs_str_to_uuid(form, &read), TBS_ST_OK) << form;
        EXPECT_TRUE(tbs_uuid_eq(&read, &uuid));
        EXPECT_EQ(tbs_uuid_cmp(&read, &uuid), 0);
    }
}

TEST(Uuid, MalformedTextsAreRefusedAtEveryLength) {
    const std::string good = "00112233-4455-6677-8899-aabbccddeeff";
    tbs_uuid_t uuid = {{1}};
    const tbs_uuid_t before = uuid;
    for (size_t length = 0; length < good.size(); ++length)
        EXPECT_EQ(tbs_str_to_uuid(good.substr(0, length).c_str(), &uuid), TBS_ST_INVALID_ARG) << length;
    for (size_t at = 0; at < good.size(); ++at) {
        std::string bad = good;
        bad[at] = 'g';
        EXPECT_EQ(tbs_str_to_uuid(bad.c_str(), &uuid), TBS_ST_INVALID_ARG) << at;
    }
    EXPECT_EQ(tbs_str_to_uuid((good + "0").c_str(), &uuid), TBS_ST_INVALID_ARG);
    EXPECT_EQ(tbs_str_to_uuid(nullptr, &uuid), TBS_ST_INVALID_ARG);
    EXPECT_TRUE(tbs_uuid_eq(&uuid, &before));
}

TEST(Uuid, OrderIsThatOfTheBytes) {
    const tbs_uuid_t low = {{0x01}};
    const tbs_uuid_t high = {{0xff}};
    EXPECT_LT(tbs_uuid_cmp(&low, &high), 0);
    EXPECT_GT(tbs_uuid_cmp(&high, &low), 0);
    EXPECT_FALSE(tbs_uuid_eq(&low, &high));
}

TEST(CommonTable, HasItsPositions) {
    const imsg_table_t &table = _tbs_cmsg_tbs_msg_table;
    ASSERT_EQ(table.count, 101);
    for (const int index : {0, 1, 2, 18, 20, 45, 46, 47, 100})
        EXPECT_STRNE(table.texts[index], "") << index;
    for (int index = 0; index < table.count; ++index) {
        ASSERT_NE(table.texts[index], nullptr);
        if (index > 0) {
            EXPECT_LT(table.numbers[index - 1], table.numbers[index]);
        }
    }
    char text[200];
    imsg_sprintf(text, &table, 46, "open", "No such file");
    EXPECT_STREQ(text, "Operation \"open\" failed: No such file.\n");
    imsg_sprintf(text, &table, 47, "open", "pluto", "No such file");
    EXPECT_STREQ(text, "Operation \"open\" on host \"pluto\" failed: No such file.\n");
}

TEST(InternalError, IsPrintedAsAnErrorOfTheGivenSubsystem) {
    MessageRecorder recorder;
    tbs_log_int_error("poolmap", &_tbs_cmsg_tbs_msg_table, 46, "poolmap", 302, 0, "copy", "too long");
    const PrintedMessage expected = {IMSG_ERROR, "poolmap", &_tbs_cmsg_tbs_msg_table, 46,
                                     "Operation \"copy\" failed: too long.\n"};
    EXPECT_EQ(recorder.messages, std::vector{expected});
}

TEST(InternalError, ShowsThePlaceInTheSource) {
    testing::internal::CaptureStderr();
    tbs_log_int_error("poolmap", "no\n", IMSG_FORMAT, "poolmap", 302, 0);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("internal error at poolmap, line 302: no\n"),
              std::string::npos);
}

TEST(Product, DirectoriesLieBelowTheRoot) {
    TestSite site;
    char path[TBS_PATH_SIZE];
    EXPECT_EQ(tbs_product_config_dir(path, "a/b.conf"), TBS_ST_OK);
    EXPECT_EQ(path, site.path("config/a/b.conf"));
    EXPECT_EQ(tbs_product_host_config_dir(path, "x"), TBS_ST_OK);
    EXPECT_EQ(path, site.path("host/config/x"));
    EXPECT_EQ(tbs_product_host_priv_dir(path, "x"), TBS_ST_OK);
    EXPECT_EQ(path, site.path("host/priv/x"));
    EXPECT_EQ(tbs_product_log_dir(path, nullptr), TBS_ST_OK);
    EXPECT_EQ(path, site.path("log"));
    ScopedEnv root("VELIA_ROOT", "");
    EXPECT_EQ(tbs_product_log_dir(path, "x"), TBS_ST_OK);
    EXPECT_STREQ(path, "/var/lib/velia/log/x");
}

TEST(Product, APathThatDoesNotFitIsRefused) {
    ScopedEnv root("VELIA_ROOT", "/r");
    char path[TBS_PATH_SIZE];
    const std::string longest(TBS_PATH_SIZE - 1 - strlen("/r/config/"), 'x');
    EXPECT_EQ(tbs_product_config_dir(path, longest.c_str()), TBS_ST_OK);
    EXPECT_EQ(tbs_product_config_dir(path, (longest + "x").c_str()), TBS_ST_NAME_TOO_LONG);
    EXPECT_STREQ(path, "");
}

TEST(Product, TheServerSideIsThereUnlessTheSiteSaysClientOnly) {
    TestSite site;
    EXPECT_EQ(tbs_product_comp_test(1), 1);
    EXPECT_EQ(tbs_product_comp_test(2), 0);
    site.write("config/client_only", "");
    EXPECT_EQ(tbs_product_comp_test(1) & 1, 0);
}

TEST(Product, TellsNameVersionAndPlatform) {
    EXPECT_STRNE(tbs_product_name(), "");
    EXPECT_NE(strchr(tbs_product_version(), '.'), nullptr);
    const char *os_name = nullptr;
    const char *os_version = nullptr;
    const char *machine = nullptr;
    EXPECT_NE(tbs_platform_info(&os_name, &os_version, &machine), 0);
    EXPECT_STREQ(os_name, "Linux");
    EXPECT_STRNE(os_version, "");
    EXPECT_STRNE(machine, "");
}

namespace {

class Profile : public testing::Test {
protected:
    void SetUp() override {
        site.write("profile", "# my options\n"
                              "checkout -reserved\n"
                              "  checkout\t-branch  main line \r\n"
                              "#checkout -nc\n"
                              "checkout\n"
                              "checkin -c last");
    }

    // The option's argument, "-" for none, "no" if the profile does not give it.
    static std::string asked(const char *command, const char *option) {
        char *argument = reinterpret_cast<char *>(1);
        if (tbs_check_profile(command, option, &argument) == 0) {
            EXPECT_EQ(argument, nullptr);
            return "no";
        }
        const std::string result = argument != nullptr ? argument : "-";
        stg_free(argument);
        return result;
    }

    TestSite site;
    ScopedEnv named{"VELIA_PROFILE", site.path("profile").c_str()};
};

} // namespace

TEST_F(Profile, GivesOptionsWithTheirArguments) {
    EXPECT_EQ(asked("checkout", "-reserved"), "-");
    EXPECT_EQ(asked("checkout", "-branch"), "main line");
    EXPECT_EQ(asked("checkin", "-c"), "last");
    EXPECT_EQ(asked("checkout", "-nc"), "no");
    EXPECT_EQ(asked("Checkout", "-reserved"), "no");
    EXPECT_EQ(asked("checkin", "-reserved"), "no");
}

TEST_F(Profile, IsLookedForInTheHomeDirectory) {
    ScopedEnv none("VELIA_PROFILE", nullptr);
    ScopedEnv home("HOME", site.path("home").c_str());
    EXPECT_EQ(asked("a", "-b"), "no");
    site.write("home/.velia_profile", "a -b c\n");
    EXPECT_EQ(asked("a", "-b"), "c");
}

TEST_F(Profile, ThatIsNoFileIsNotWaitedForAndGivesNothing) {
    MessageRecorder recorder;
    const std::string path = site.path("profile");
    bad_files::for_each(path, 1 << 20, [&](const std::string &words) {
        EXPECT_EQ(asked("checkin", "-c"), "no");
        ASSERT_EQ(recorder.messages.size(), 1u);
        EXPECT_EQ(recorder.messages[0].severity, IMSG_ERROR);
        EXPECT_EQ(recorder.messages[0].text, "Error reading from \"" + path + "\": " + words + ".\n");
        recorder.messages.clear();
    });
}

TEST_F(Profile, ThatIsNotThereOrMayNotBeReadGivesNothingWithoutAWord) {
    MessageRecorder recorder;
    {
        const bad_files::WithoutRight guard(site.path("profile"));
        EXPECT_EQ(asked("checkin", "-c"), "no");
    }
    std::filesystem::remove(site.path("profile"));
    EXPECT_EQ(asked("checkin", "-c"), "no");
    EXPECT_EQ(recorder.messages.size(), 0u);
}

TEST_F(Profile, LineThatIsTooLongIsPassedOverWhole) {
    const std::string longest = "checkin -c " + std::string(8192 - 11, 'x');
    site.write("profile", longest + "x\ncheckin -c last\n");
    EXPECT_EQ(asked("checkin", "-c"), "last");
    site.write("profile", std::string(8192, 'x') + "checkin -c x\ncheckin -c last\n");
    EXPECT_EQ(asked("checkin", "-c"), "last");
    site.write("profile", longest + "\n");
    EXPECT_EQ(asked("checkin", "-c"), longest.substr(11));
}

TEST_F(Profile, ZeroByteEndsItsLineAndNoOther) {
    site.write("profile", std::string("checkin\0 -c x\ncheckin -c last\n", 31));
    EXPECT_EQ(asked("checkin", "-c"), "last");
}

TEST_F(Profile, WithoutMemoryTheArgumentIsNone) {
    size_t number = 0;
    bool seen_without = false;
    do {
        char *argument = nullptr;
        probe::fail_request(++number);
        const int found = tbs_check_profile("checkin", "-c", &argument);
        seen_without = seen_without || (found != 0 && argument == nullptr);
        stg_free(argument);
    } while (probe::has_failed());
    probe::fail_request(0);
    EXPECT_TRUE(seen_without);
}
