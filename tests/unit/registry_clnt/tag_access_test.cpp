// The check before a privileged change of a tag: who is asked for the password, what is sent, how a denial is told.
#include <tests/unit/registry_clnt/registry_fixture.h>

#include <veliaxdr/rgy_manage.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class TagAccess : public RegistryTest {
protected:
    TagAccess() {
        world.write_file("host/config/rgy_hosts.conf", "alpha beta");
        world.peer.answer(RVZD_PROC_RGY_CHK_ACCESS, refusal(TBS_ST_OK));
    }

    // What the last request held.
    std::string sent() const {
        auto request = world.peer.last().decode(xdr_rvzd_registry_chk_access_req_t);
        EXPECT_EQ(request.db, RGY_DB_VAULT_TAG);
        const std::string text = request.password;
        stg_free(request.password);
        return text;
    }
    void hold(const std::string &text) { text.copy(password, sizeof password - 1), password[text.size()] = '\0'; }
    std::vector<sim::Message> take_told() {
        auto messages = world.take_messages();
        std::erase_if(messages, [](const sim::Message &one) { return one.table != &_registry_rvzd_msg_table; });
        return messages;
    }
    static sim::Message line(int severity, int position) {
        return message_of(severity, _registry_rvzd_msg_table, position);
    }
    size_t calls() const { return world.peer.count(RVZD_PROC_RGY_CHK_ACCESS); }

    const sim::Message access = line(IMSG_ERROR, REGISTRY_MSG_ACCESS_FOR_MODIFICATION);
    const sim::Message denied = line(IMSG_CONTINUATION, REGISTRY_MSG_ACCESS_DENIED);
    const sim::Message without = line(IMSG_CONTINUATION, REGISTRY_MSG_NO_PASSWORD_CONFIGURED);
    char password[RGY_PASSWORD_SIZE] = "";
};

TEST_F(TagAccess, APasswordInTheBufferIsSentAndNobodyIsAsked) {
    hold("secret");
    EXPECT_EQ(rgy_chk_tag_priv(nullptr, password), TBS_ST_OK);
    EXPECT_EQ(sent(), "secret");
    EXPECT_THAT(world.prompts, IsEmpty());
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(TagAccess, WithoutOneTheUserIsAskedOnce) {
    world.typed_password = "secret";
    for (int round = 0; round < 2; ++round)
        EXPECT_EQ(rgy_chk_tag_priv(nullptr, password), TBS_ST_OK);
    EXPECT_EQ(sent(), "secret");
    EXPECT_STREQ(password, "secret");
    EXPECT_THAT(world.prompts, ElementsAre("Registry password: "));
}

TEST_F(TagAccess, AnyAnswerButAPasswordEndsItWithoutACall) {
    for (const int result : {IMSG_PASSWORD_NO_TERMINAL, IMSG_PASSWORD_CANCELLED, IMSG_PASSWORD_TOO_LONG}) {
        world.prompt_result = result;
        EXPECT_EQ(rgy_chk_tag_priv(nullptr, password), TBS_ST_ERROR) << result;
        EXPECT_STREQ(password, "");
    }
    EXPECT_THAT(world.peer.calls, IsEmpty());
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

// Enter alone is an answer, and the registry says what it is worth.
TEST_F(TagAccess, AnEmptyAnswerIsSent) {
    world.peer.answer(RVZD_PROC_RGY_CHK_ACCESS, refusal(TBS_ST_NO_ACCESS));
    EXPECT_EQ(rgy_chk_tag_priv(nullptr, password), TBS_ST_NO_ACCESS);
    EXPECT_EQ(sent(), "");
}

TEST_F(TagAccess, ADenialIsToldInItsOwnWords) {
    hold("wrong");
    world.peer.answer(RVZD_PROC_RGY_CHK_ACCESS, refusal(TBS_ST_NO_ACCESS));
    EXPECT_EQ(rgy_chk_tag_priv(nullptr, password), TBS_ST_NO_ACCESS);
    EXPECT_THAT(world.take_messages(), ElementsAre(access, denied));
}

TEST_F(TagAccess, ARegistryWithoutAPasswordIsToldAsSuch) {
    hold("any");
    world.peer.answer(RVZD_PROC_RGY_CHK_ACCESS, refusal(TBS_ST_NOT_FOUND));
    EXPECT_EQ(rgy_chk_tag_priv(nullptr, password), TBS_ST_NOT_FOUND);
    EXPECT_THAT(world.take_messages(), ElementsAre(access, denied, without));
}

TEST_F(TagAccess, AFailureIsADenialToo) {
    hold("any");
    world.peer.answer(RVZD_PROC_RGY_CHK_ACCESS, refusal(4711));
    EXPECT_EQ(rgy_chk_tag_priv(nullptr, password), TBS_ST_ERROR);
    EXPECT_THAT(take_told(), ElementsAre(message_of(IMSG_ERROR, _registry_rvzd_msg_table,
                                                    REGISTRY_MSG_TROUBLE_CONTACTING, "alpha", tbs_strerror(4711)),
                                         access, denied));
    EXPECT_EQ(rgy_chk_tag_priv("nowhere", password), TBS_ST_NOT_FOUND);
    EXPECT_THAT(take_told(), ElementsAre(access, denied, without));
}

TEST_F(TagAccess, AGivenHostIsAsked) {
    hold("any");
    EXPECT_EQ(rgy_chk_tag_priv("beta", password), TBS_ST_OK);
    EXPECT_EQ(world.peer.last().address.ipv4.sin_addr.s_addr, htonl(0x7f000003));
}

TEST_F(TagAccess, EveryByteGoesThrough) {
    std::string all;
    for (int byte = 1; byte < 256; ++byte)
        all += static_cast<char>(byte);
    hold(all);
    EXPECT_EQ(rgy_chk_tag_priv(nullptr, password), TBS_ST_OK);
    EXPECT_EQ(sent(), all);
    EXPECT_STREQ(password, all.c_str());
    *password = '\0';
    world.typed_password = all;
    EXPECT_EQ(rgy_chk_tag_priv(nullptr, password), TBS_ST_OK);
    EXPECT_EQ(sent(), all);
}

TEST_F(TagAccess, TheLongestPasswordGoesThrough) {
    const std::string longest(RGY_PASSWORD_SIZE - 1, '\xff');
    hold(longest);
    EXPECT_EQ(rgy_chk_tag_priv(nullptr, password), TBS_ST_OK);
    EXPECT_EQ(sent(), longest);
}

// One that no buffer of the right size can hold is refused by the encoding, and not cut.
TEST_F(TagAccess, ALongerOneIsNotSent) {
    const std::string longer(RGY_PASSWORD_SIZE, 'x');
    EXPECT_EQ(rgy_chk_access(RGY_DB_VAULT_TAG, nullptr, longer.c_str()), TBS_ST_ERROR);
    EXPECT_EQ(calls(), 0u);
}

TEST_F(TagAccess, ThePasswordIsNeverPrinted) {
    world.verbosity = 9;
    hold("sesame-open");
    for (const tbs_status_t status : {TBS_ST_OK, TBS_ST_NO_ACCESS, TBS_ST_NOT_FOUND, TBS_ST_ERROR}) {
        world.peer.answer(RVZD_PROC_RGY_CHK_ACCESS, refusal(status));
        rgy_chk_tag_priv(nullptr, password);
    }
    for (const auto &message : world.take_messages())
        EXPECT_EQ(message.text.find("sesame"), std::string::npos) << message.text;
}

TEST_F(TagAccess, ANullBufferIsRefused) {
    EXPECT_EQ(rgy_chk_tag_priv(nullptr, nullptr), TBS_ST_INVALID_ARG);
    EXPECT_THAT(world.prompts, IsEmpty());
}

TEST_F(TagAccess, ThePromptWaitsWithNoLockHeld) {
    world.typed_password = "secret";
    world.raise_at_call(1, sim::raise_code); // lands in the prompt, which is the first place for one
    auto operation = [&] { rgy_chk_tag_priv(nullptr, password); };
    EXPECT_EQ(sim::run_and_catch(operation), sim::raise_code);
    EXPECT_EQ(registry_cache_lock.depth, 0u);
    EXPECT_EQ(rvzd_call_lock.depth, 0u);
    EXPECT_EQ(rgy_hostname_mutex.depth, 0u);
    EXPECT_STREQ(password, "");
    world.raise_at_call(0, 0);
}

TEST_F(TagAccess, EachFailingAllocationLeaksNothing) {
    hold("secret");
    ASSERT_EQ(rgy_chk_tag_priv(nullptr, password), TBS_ST_OK);
    const auto before = sim::Holdings::now(world);
    sim::sweep_allocations(
        world, [&] { rgy_chk_tag_priv(nullptr, password); },
        [&](int number) { EXPECT_EQ(sim::Holdings::now(world), before) << number; });
}

TEST_F(TagAccess, ARaiseLeaksNothing) {
    hold("secret");
    ASSERT_EQ(rgy_chk_tag_priv(nullptr, password), TBS_ST_OK);
    const auto before = sim::Holdings::now(world);
    world.typed_password = "secret";
    auto operation = [&] {
        *password = '\0';
        rgy_chk_tag_priv(nullptr, password);
    };
    const int raises = sim::sweep_raises(world, operation, [&](int number) {
        sim::release_lock(rvzd_call_lock);
        EXPECT_EQ(registry_cache_lock.depth, 0u);
        EXPECT_EQ(rgy_hostname_mutex.depth, 0u);
        EXPECT_EQ(sim::Holdings::now(world), before) << number;
    });
    EXPECT_GE(raises, 2);
}

} // namespace
