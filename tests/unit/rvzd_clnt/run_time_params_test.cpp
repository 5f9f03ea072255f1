#include <tests/unit/rvzd_clnt/broker_fixture.h>

#include <filesystem>

#include <tests/bad_files.h>

namespace {

class RunTimeParams : public BrokerTest {
protected:
    void file(const std::string &text) { world.write_file("config/services/rvzd_rt_params.conf", text); }

    std::pair<tbs_status_t, int32_t> read(uint32_t index) {
        int32_t value = -1;
        const auto status = rvzd_get_rt_param(index, &value);
        return {status, value};
    }

    std::string path() const { return world.root() + "/config/services/rvzd_rt_params.conf"; }
    sim::Message refusal(const std::string &words) const {
        return sim::told_by("xdr/rvzd",
                            message_of(IMSG_ERROR, _tbs_cmsg_tbs_msg_table, 20, path().c_str(), words.c_str()));
    }

    static constexpr uint64_t bytes_max = 1 << 20;
    using Result = std::pair<tbs_status_t, int32_t>;
};

TEST_F(RunTimeParams, EachIndexReadsItsKey) {
    const char *keys[] = {"TCP_RCV_BUF_SZ",
                          "UDP_RCV_BUF_SZ",
                          "RGY_FLUSH_INTERVAL",
                          "IDLE_SLOPE",
                          "IVLADM_SVR_PORT",
                          "FLADM_SVR_PORT",
                          "FLSHP_MIN_PORT",
                          "FLSHP_MAX_PORT",
                          "FLSHP_STRICT",
                          "IRONVALE_VIEW_UDP_BUFFER_SIZE",
                          "SUPPRESS_LONG_LIVED_VAULTRPC_SERVERS",
                          "IRONVALE_VIEW_RDDIR_CACHE_PERCENT",
                          "MAX_RGY_WORKER_THREADS"};
    std::string text;
    for (int i = 0; i < 13; ++i)
        text += std::string(keys[i]) + " = " + std::to_string(100 + i) + "\n";
    file(text);
    for (uint32_t i = 0; i < 13; ++i)
        EXPECT_EQ(read(i), Result(TBS_ST_OK, 100 + static_cast<int32_t>(i))) << keys[i];
}

TEST_F(RunTimeParams, AnIndexAboveTwelveIsAnErrorAndClearsTheValue) {
    file("TCP_RCV_BUF_SZ = 1\n");
    EXPECT_EQ(read(13), Result(TBS_ST_ERROR, 0));
    EXPECT_EQ(read(UINT32_MAX), Result(TBS_ST_ERROR, 0));
}

TEST_F(RunTimeParams, NoFileMeansNotSet) {
    EXPECT_EQ(read(RVZD_RT_IDLE_SLOPE), Result(TBS_ST_NOT_SET, 0));
}

TEST_F(RunTimeParams, AnEmptyFileMeansNotSet) {
    file("");
    EXPECT_EQ(read(RVZD_RT_IDLE_SLOPE), Result(TBS_ST_NOT_SET, 0));
}

TEST_F(RunTimeParams, AFileThatIsNoneIsNotWaitedForAndMeansNotSet) {
    bad_files::for_each(path(), bytes_max, [&](const std::string &words) {
        EXPECT_EQ(read(RVZD_RT_IDLE_SLOPE), Result(TBS_ST_NOT_SET, 0));
        EXPECT_THAT(world.take_messages(), testing::ElementsAre(refusal(words)));
    });
}

TEST_F(RunTimeParams, AFileIsReadUpToItsBoundAndNotBehindIt) {
    const std::string line = "IDLE_SLOPE = 7\n";
    const std::string padding = std::string(bytes_max - line.size() - 1, 'x') + "\n";
    file(padding + line);
    EXPECT_EQ(read(RVZD_RT_IDLE_SLOPE), Result(TBS_ST_OK, 7));
    EXPECT_THAT(world.take_messages(), testing::IsEmpty());
    file(line + padding + "x");
    EXPECT_EQ(read(RVZD_RT_IDLE_SLOPE), Result(TBS_ST_NOT_SET, 0));
    EXPECT_THAT(world.take_messages(),
                testing::ElementsAre(refusal(bad_files::words(bad_files::Kind::sparse, bytes_max))));
}

TEST_F(RunTimeParams, AFileThatMayNotBeReadMeansNotSetAndNoMessage) {
    file("IDLE_SLOPE = 7\n");
    const bad_files::WithoutRight guard(path());
    EXPECT_EQ(read(RVZD_RT_IDLE_SLOPE), Result(TBS_ST_NOT_SET, 0));
    EXPECT_THAT(world.take_messages(), testing::IsEmpty());
}

TEST_F(RunTimeParams, ARaiseKeepsNoFileOpen) {
    file("IDLE_SLOPE = 7\n");
    const size_t descriptors = bad_files::open_descriptors();
    const int raises = sim::sweep_raises(
        world, [&] { read(RVZD_RT_IDLE_SLOPE); }, [&](int) { EXPECT_EQ(bad_files::open_descriptors(), descriptors); });
    EXPECT_GT(raises, 0);
    EXPECT_EQ(bad_files::open_descriptors(), descriptors) << "nor does the run without one";
}

TEST_F(RunTimeParams, ACommentBehindTheValueIsCutOff) {
    file("IDLE_SLOPE = 20 # was 30\n");
    EXPECT_EQ(read(RVZD_RT_IDLE_SLOPE), Result(TBS_ST_OK, 20));
}

TEST_F(RunTimeParams, ACommentSignInFrontOfTheKeySwitchesTheLineOff) {
    file("#IDLE_SLOPE = 20\n");
    EXPECT_EQ(read(RVZD_RT_IDLE_SLOPE), Result(TBS_ST_NOT_SET, 0));
}

TEST_F(RunTimeParams, AKeyInsideALongerWordOnAnEarlierLineDecides) {
    file("MY_IDLE_SLOPE_OLD = 5\nIDLE_SLOPE = 20\n");
    EXPECT_EQ(read(RVZD_RT_IDLE_SLOPE), Result(TBS_ST_OK, 5));
}

TEST_F(RunTimeParams, AKeyWithoutDigitsIsAnError) {
    file("IDLE_SLOPE = none\nIDLE_SLOPE = 20\n");
    EXPECT_EQ(read(RVZD_RT_IDLE_SLOPE), Result(TBS_ST_ERROR, 0));
}

TEST_F(RunTimeParams, DigitsBehindACommentSignAreNotSeen) {
    file("IDLE_SLOPE = # 20\n");
    EXPECT_EQ(read(RVZD_RT_IDLE_SLOPE), Result(TBS_ST_ERROR, 0));
}

TEST_F(RunTimeParams, AnySeparatorWorksAndSignsAreSkipped) {
    for (const char *line :
         {"IDLE_SLOPE 20\n", "IDLE_SLOPE:20\n", "IDLE_SLOPE=20\n", "IDLE_SLOPE => -20\n", "IDLE_SLOPE is 20 or 30\n"}) {
        file(line);
        EXPECT_EQ(read(RVZD_RT_IDLE_SLOPE), Result(TBS_ST_OK, 20)) << line;
    }
}

TEST_F(RunTimeParams, ALastLineWithoutANewlineIsNeverLookedAt) {
    file("TCP_RCV_BUF_SZ = 1\nIDLE_SLOPE = 20");
    EXPECT_EQ(read(RVZD_RT_IDLE_SLOPE), Result(TBS_ST_NOT_SET, 0));
    EXPECT_EQ(read(RVZD_RT_TCP_RCV_BUF_SZ), Result(TBS_ST_OK, 1));
}

TEST_F(RunTimeParams, ANumberBeyond32BitsIsNoValue) {
    file("IDLE_SLOPE = 2147483648\nUDP_RCV_BUF_SZ = 2147483647\n");
    EXPECT_EQ(read(RVZD_RT_IDLE_SLOPE), Result(TBS_ST_ERROR, 0));
    EXPECT_EQ(read(RVZD_RT_UDP_RCV_BUF_SZ), Result(TBS_ST_OK, INT32_MAX));
}

TEST_F(RunTimeParams, ALineLongerThanTheBufferIsReadInPieces) {
    file(std::string(255, 'x') + "IDLE_SLOPE = 7\n");
    EXPECT_EQ(read(RVZD_RT_IDLE_SLOPE), Result(TBS_ST_OK, 7));
    file(std::string(250, 'x') + "IDLE_SLOPE = 7\n");
    EXPECT_EQ(read(RVZD_RT_IDLE_SLOPE), Result(TBS_ST_NOT_SET, 0));
}

TEST_F(RunTimeParams, BytesOfEveryKindDoNoHarm) {
    std::string text;
    for (int i = 0; i < 256; ++i)
        text += static_cast<char>(i);
    file(text + "\n" + std::string(3, '\0') + "\nIDLE_SLOPE = 3\n");
    EXPECT_EQ(read(RVZD_RT_IDLE_SLOPE), Result(TBS_ST_OK, 3));
}

TEST_F(RunTimeParams, TheFileIsReadAfreshAtEachCall) {
    file("IDLE_SLOPE = 1\n");
    EXPECT_EQ(read(RVZD_RT_IDLE_SLOPE), Result(TBS_ST_OK, 1));
    file("IDLE_SLOPE = 2\n");
    EXPECT_EQ(read(RVZD_RT_IDLE_SLOPE), Result(TBS_ST_OK, 2));
}

} // namespace
