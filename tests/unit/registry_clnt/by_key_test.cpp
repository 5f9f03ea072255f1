// Look-ups of one value, and removals, by a key.
#include <tests/unit/registry_clnt/registry_fixture.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const tbs_uuid_t key_uuid = uuid_from(1);

// A registry whose searches find these entries, batch by batch, and which forgets what is removed.
class ByKey : public RegistryTest {
protected:
    ByKey() {
        world.write_file("host/config/rgy_hosts.conf", "alpha beta");
        for (const uint32_t procedure : {RVZD_PROC_RGY_FINDBYSTRING_ENTRY, RVZD_PROC_RGY_FINDBYUUID_ENTRY})
            world.peer.on(procedure, [this](const sim::Call &call) { return next_batch(call); });
        world.peer.on(RVZD_PROC_RGY_REMOVE_ENTRY, [this](const sim::Call &call) {
            removed.push_back(word_at(call.request, behind_stamps));
            return refusal(removal_status);
        });
        rgy_cache_action(0);
    }
    ~ByKey() override {
        rgy_cache_action(1);
        EXPECT_EQ(rpc_binding == nullptr ? 0 : rpc_binding[0].ref_count, 0);
    }

    // The requests are read by hand: decoding them would take part in the counting of allocations.
    static uint32_t word_at(const sim::Bytes &bytes, size_t offset) {
        uint32_t word = 0;
        for (size_t i = 0; i < 4; ++i)
            word = word << 8 | bytes.at(offset + i);
        return word;
    }
    // Behind header, database, version and stamps: the region, then cursor and batch size; or the number of an entry.
    static constexpr size_t behind_stamps = 12 + 4 + 4 + 32;

    // The requests of both searches begin alike.
    sim::Answer next_batch(const sim::Call &call) {
        const size_t region_size = (word_at(call.request, behind_stamps) + 3) / 4 * 4;
        const size_t from = word_at(call.request, behind_stamps + 4 + region_size);
        const size_t size = word_at(call.request, behind_stamps + 8 + region_size);
        asked_sizes.insert(size);
        const size_t to = std::min(found.size(), from + size);
        return batch({found.begin() + static_cast<long>(from), found.begin() + static_cast<long>(to)},
                     to < found.size() ? to : 0);
    }
    size_t searches() const {
        return world.peer.count(RVZD_PROC_RGY_FINDBYSTRING_ENTRY) + world.peer.count(RVZD_PROC_RGY_FINDBYUUID_ENTRY);
    }
    void refuse_searches(tbs_status_t status) {
        for (const uint32_t procedure : {RVZD_PROC_RGY_FINDBYSTRING_ENTRY, RVZD_PROC_RGY_FINDBYUUID_ENTRY})
            world.peer.answer(procedure, refusal(status));
    }
    static sim::Message failed(const char *operation, tbs_status_t status) {
        return sim::told_by("registry",
                            message_of(IMSG_ERROR, _tbs_cmsg_tbs_msg_table, 46, operation, tbs_strerror(status)));
    }
    // The last message that is told of an operation; the ones before are of the contact.
    sim::Message last_error() {
        const auto errors = world.take_errors();
        return errors.empty() ? sim::Message{} : errors.back();
    }

    tbs_status_t info(bool by_uuid) {
        return by_uuid ? rgy_getinfo_by_uuid(3, "alpha", nullptr, RGY_ITEM_VIEW_UUID, &key_uuid, host_size, host,
                                             local_size, local, global_size, global, options_size, options)
                       : rgy_getinfo_by_string(3, "alpha", nullptr, RGY_ITEM_TAG, "/a", host_size, host, local_size,
                                               local, global_size, global);
    }

    std::vector<std::string> found;
    std::set<size_t> asked_sizes;
    std::vector<uint64_t> removed;
    tbs_status_t removal_status = TBS_ST_OK;

    char host_buffer[32] = "";
    char local_buffer[32] = "";
    char global_buffer[32] = "";
    char options_buffer[32] = "";
    char *host = host_buffer;
    char *local = local_buffer;
    char *global = global_buffer;
    char *options = nullptr;
    size_t host_size = 32;
    size_t local_size = 32;
    size_t global_size = 32;
    size_t options_size = 32;
};

constexpr char full_entry[] = "-hostname=h1;-local_path=/l;-global_path=/g;-mount_options=ro;";

TEST_F(ByKey, InformationIsCopiedOfOneEntry) {
    found = {full_entry};
    for (const bool by_uuid : {false, true}) {
        memset(host_buffer, 0, sizeof host_buffer);
        options = options_buffer;
        ASSERT_EQ(info(by_uuid), TBS_ST_OK);
        EXPECT_STREQ(host_buffer, "h1");
        EXPECT_STREQ(local_buffer, "/l");
        EXPECT_STREQ(global_buffer, "/g");
        EXPECT_STREQ(options_buffer, by_uuid ? "ro" : "");
    }
    EXPECT_THAT(world.take_errors(), IsEmpty());
}

TEST_F(ByKey, InformationIsAskedForOneEntryAtATime) {
    found = {full_entry, full_entry};
    options = options_buffer;
    for (const bool by_uuid : {false, true})
        EXPECT_EQ(info(by_uuid), TBS_ST_OK);
    EXPECT_THAT(asked_sizes, ElementsAre(1u));
}

TEST_F(ByKey, InformationOfNothingIsNotFound) {
    for (const bool by_uuid : {false, true})
        EXPECT_EQ(info(by_uuid), TBS_ST_NOT_FOUND);
    EXPECT_THAT(world.take_errors(), IsEmpty());
}

TEST_F(ByKey, WithAllBuffersNullOnlyTheEntrysExistenceIsAsked) {
    host = local = global = nullptr;
    found = {"-tag=/a;"};
    EXPECT_EQ(info(false), TBS_ST_OK);
    EXPECT_EQ(info(true), TBS_ST_OK);
    found = {};
    EXPECT_EQ(info(true), TBS_ST_NOT_FOUND);
}

TEST_F(ByKey, ABufferOfSizeZeroIsNotFilled) {
    found = {"-tag=/a;"};
    host_size = local_size = global_size = 0;
    EXPECT_EQ(info(false), TBS_ST_OK);
}

TEST_F(ByKey, TheFirstMissingFieldEndsTheCopyingAndIsTold) {
    found = {"-hostname=h1;-global_path=/g;"};
    for (const bool by_uuid : {false, true}) {
        memset(global_buffer, 0, sizeof global_buffer);
        EXPECT_EQ(info(by_uuid), TBS_ST_NOT_FOUND);
        EXPECT_STREQ(host_buffer, "h1");
        EXPECT_STREQ(global_buffer, "");
        EXPECT_THAT(world.take_errors(), ElementsAre(failed("rgy_getstring_from_entry", TBS_ST_NOT_FOUND)));
    }
}

TEST_F(ByKey, AFieldThatDoesNotFitIsInvalid) {
    found = {full_entry};
    local_size = 2;
    EXPECT_EQ(info(false), TBS_ST_INVALID_ARG);
    EXPECT_THAT(world.take_errors(), ElementsAre(failed("rgy_getstring_from_entry", TBS_ST_INVALID_ARG)));
}

TEST_F(ByKey, TheMountOptionsSizeIsNotTestedAndTheirFailureNotTold) {
    found = {full_entry};
    options = options_buffer;
    options_size = 0;
    EXPECT_EQ(info(true), TBS_ST_INVALID_ARG);
    found = {"-hostname=h1;-local_path=/l;-global_path=/g;"};
    options_size = 32;
    EXPECT_EQ(info(true), TBS_ST_NOT_FOUND);
    EXPECT_THAT(world.take_errors(), IsEmpty());
}

TEST_F(ByKey, AFailedSearchForInformationIsToldUnderTheSearchByUuidInBothForms) {
    refuse_searches(TBS_ST_NO_ACCESS);
    EXPECT_EQ(info(false), TBS_ST_ERROR);
    EXPECT_EQ(last_error(), failed("rgy_findbyuuid_entry", TBS_ST_ERROR));
    EXPECT_EQ(info(true), TBS_ST_ERROR);
    EXPECT_EQ(last_error(), failed("rgy_findbyuuid_entry", TBS_ST_ERROR));
}

TEST_F(ByKey, OnlyTheFormByUuidPassesTheSearchsStatusOn) {
    EXPECT_EQ(rgy_getinfo_by_string(3, "nowhere", "", 10, "/a", 0, nullptr, 0, nullptr, 0, nullptr), TBS_ST_ERROR);
    EXPECT_EQ(last_error(), failed("rgy_findbyuuid_entry", TBS_ST_NOT_FOUND));
    EXPECT_EQ(rgy_getinfo_by_uuid(3, "nowhere", "", 14, &key_uuid, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr),
              TBS_ST_NOT_FOUND);
    EXPECT_EQ(last_error(), failed("rgy_findbyuuid_entry", TBS_ST_NOT_FOUND));
}

TEST_F(ByKey, ABatchWithoutEntryThoughThereWereMoreIsNotFound) {
    world.peer.answer(RVZD_PROC_RGY_FINDBYSTRING_ENTRY, batch({}, 30));
    EXPECT_EQ(info(false), TBS_ST_NOT_FOUND);
}

// The four readers of one value, each as a text.
struct Reader {
    const char *name;
    const char *search;
    tbs_status_t (*read)(const char *host, char *text, int32_t *ambiguous);
};

tbs_status_t as_text(tbs_status_t status, const tbs_uuid_t &uuid, char *text) {
    if (status == TBS_ST_OK)
        tbs_uuid_to_str(&uuid, text);
    return status;
}

constexpr size_t text_size = TBS_UUID_STR_SIZE;
constexpr char value_text[] = "01020304-0506-0708-090a-0b0c0d0e0f10";

const Reader readers[] = {
    {"rgy_getstring_by_string", "rgy_findbystring_entry",
     [](const char *host, char *text, int32_t *ambiguous) {
         return rgy_getstring_by_string(3, host, "", RGY_ITEM_TAG, "/a", RGY_ITEM_ID, text_size, text, ambiguous);
     }},
    {"rgy_getstring_by_uuid", "rgy_findbyuuid_entry",
     [](const char *host, char *text, int32_t *ambiguous) {
         return rgy_getstring_by_uuid(3, host, "", RGY_ITEM_VIEW_UUID, &key_uuid, RGY_ITEM_ID, text_size, text,
                                      ambiguous);
     }},
    {"rgy_getuuid_by_string", "rgy_findbystring_entry",
     [](const char *host, char *text, int32_t *ambiguous) {
         tbs_uuid_t uuid = {};
         return as_text(rgy_getuuid_by_string(3, host, "", RGY_ITEM_TAG, "/a", RGY_ITEM_ID, &uuid, ambiguous), uuid,
                        text);
     }},
    {"rgy_getuuid_by_uuid", "rgy_findbyuuid_entry",
     [](const char *host, char *text, int32_t *ambiguous) {
         tbs_uuid_t uuid = {};
         return as_text(rgy_getuuid_by_uuid(3, host, "", RGY_ITEM_VIEW_UUID, &key_uuid, RGY_ITEM_ID, &uuid, ambiguous),
                        uuid, text);
     }},
};

TEST_F(ByKey, ExactlyOneMatchGivesItsValueUnambiguously) {
    found = {std::string("-id=") + value_text + ";"};
    for (const auto &reader : readers) {
        char text[text_size] = "";
        int32_t ambiguous = 9;
        EXPECT_EQ(reader.read("alpha", text, &ambiguous), TBS_ST_OK) << reader.name;
        EXPECT_STREQ(text, value_text);
        EXPECT_EQ(ambiguous, 0) << reader.name;
        EXPECT_EQ(reader.read("alpha", text, nullptr), TBS_ST_OK);
    }
}

TEST_F(ByKey, OfSeveralMatchesTheFirstCountsAndTheThirdIsNeverRead) {
    found = {std::string("-id=") + value_text + ";", "-id=2;", "-id=3;"};
    for (const auto &reader : readers) {
        char text[text_size] = "";
        int32_t ambiguous = 9;
        const size_t before = searches();
        EXPECT_EQ(reader.read("alpha", text, &ambiguous), TBS_ST_OK) << reader.name;
        EXPECT_STREQ(text, value_text);
        EXPECT_EQ(ambiguous, 1) << reader.name;
        // One search asks for two at once, the others for one after the other.
        const bool is_short = std::string(reader.name) == "rgy_getstring_by_uuid";
        EXPECT_EQ(searches() - before, is_short ? 1u : 2u) << reader.name;
        auto request = world.peer.last().decode(xdr_rvzd_registry_get_req_t);
        EXPECT_EQ(request.max_entries, is_short ? 2 : 1);
        stg_free(request.region);
    }
}

TEST_F(ByKey, NoMatchIsNotFoundAndNotAmbiguous) {
    for (const auto &reader : readers) {
        char text[text_size];
        int32_t ambiguous = 9;
        EXPECT_EQ(reader.read("alpha", text, &ambiguous), TBS_ST_NOT_FOUND) << reader.name;
        EXPECT_EQ(ambiguous, 0);
    }
    EXPECT_THAT(world.take_errors(), IsEmpty());
}

TEST_F(ByKey, AFailedSearchIsToldUnderItsNameAndIsAnError) {
    for (const auto &reader : readers) {
        char text[text_size];
        int32_t ambiguous = 9;
        EXPECT_EQ(reader.read("nowhere", text, &ambiguous), TBS_ST_ERROR) << reader.name;
        EXPECT_EQ(last_error(), failed(reader.search, TBS_ST_NOT_FOUND));
        EXPECT_EQ(ambiguous, 0);
    }
}

TEST_F(ByKey, AMissingOrUnreadableValueIsItsReadersStatus) {
    found = {"-tag=/a;", "-id=2;"};
    for (const auto &reader : readers) {
        char text[text_size];
        int32_t ambiguous = 9;
        EXPECT_EQ(reader.read("alpha", text, &ambiguous), TBS_ST_NOT_FOUND) << reader.name;
        EXPECT_EQ(ambiguous, 1) << reader.name;
    }
    found = {"-id=" + std::string(100, 'x') + ";"};
    for (const auto &reader : readers) {
        char text[text_size];
        EXPECT_EQ(reader.read("alpha", text, nullptr), TBS_ST_INVALID_ARG) << reader.name;
    }
    EXPECT_THAT(world.take_errors(), IsEmpty());
}

TEST_F(ByKey, OnlyTheValueOfASingleMatchIsAnsweredFromTheCache) {
    rgy_cache_action(1);
    const std::string match = std::string("-id=") + value_text + ";";
    for (const auto &reader : readers) {
        // Of two matches one search brings both, and is not kept; two searches for one each push each other out.
        const bool is_short = std::string(reader.name) == "rgy_getstring_by_uuid";
        for (const size_t matches : {1u, 2u}) {
            found.assign(matches, match);
            flush_caches("alpha", RGY_DB_ALL);
            char text[text_size];
            const size_t before = searches();
            EXPECT_EQ(reader.read("alpha", text, nullptr), TBS_ST_OK);
            const size_t first = searches() - before;
            EXPECT_EQ(first, matches == 1 || is_short ? 1u : 2u) << reader.name;
            EXPECT_EQ(reader.read("alpha", text, nullptr), TBS_ST_OK);
            EXPECT_EQ(searches() - before, matches == 1 ? first : 2 * first) << reader.name << matches;
        }
    }
}

TEST_F(ByKey, NullKeysAreRefused) {
    EXPECT_EQ(rgy_getinfo_by_string(3, "", "", 3, nullptr, 0, nullptr, 0, nullptr, 0, nullptr), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rgy_getinfo_by_uuid(3, "", "", 3, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr),
              TBS_ST_INVALID_ARG);
    EXPECT_EQ(rgy_getstring_by_string(3, "", "", 3, nullptr, 4, 0, nullptr, nullptr), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rgy_getstring_by_uuid(3, "", "", 3, nullptr, 4, 0, nullptr, nullptr), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rgy_getuuid_by_string(3, "", "", 3, nullptr, 4, nullptr, nullptr), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rgy_getuuid_by_uuid(3, "", "", 3, nullptr, 4, nullptr, nullptr), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rgy_remove_by_string(3, "", "", 3, nullptr), TBS_ST_INVALID_ARG);
    EXPECT_EQ(rgy_remove_by_uuid(3, "", "", 3, nullptr), TBS_ST_INVALID_ARG);
}

class RemoveByKey : public ByKey, public testing::WithParamInterface<bool> {
protected:
    tbs_status_t remove(const char *registry_host = "alpha") {
        return GetParam() ? rgy_remove_by_uuid(3, registry_host, "", RGY_ITEM_VIEW_UUID, &key_uuid)
                          : rgy_remove_by_string(3, registry_host, "", RGY_ITEM_TAG, "/a");
    }
    const char *search() const { return GetParam() ? "rgy_findbyuuid_entry" : "rgy_findbystring_entry"; }
};

INSTANTIATE_TEST_SUITE_P(By, RemoveByKey, testing::Bool(),
                         [](const auto &one) { return std::string(one.param ? "uuid" : "string"); });

TEST_P(RemoveByKey, NoMatchIsNotFound) {
    EXPECT_EQ(remove(), TBS_ST_NOT_FOUND);
    EXPECT_THAT(removed, IsEmpty());
    EXPECT_THAT(world.take_errors(), IsEmpty());
}

TEST_P(RemoveByKey, AMatchIsRemoved) {
    found = {"-tag=/a;"};
    EXPECT_EQ(remove(), TBS_ST_OK);
    EXPECT_THAT(removed, ElementsAre(1u));
    EXPECT_EQ(searches(), 1u);
}

TEST_P(RemoveByKey, FortyFiveMatchesTakeThreeBatches) {
    found.assign(45, "-tag=/a;");
    EXPECT_EQ(remove(), TBS_ST_OK);
    EXPECT_EQ(removed.size(), 45u);
    EXPECT_EQ(searches(), 3u);
}

TEST_P(RemoveByKey, ABatchWithoutEntriesRemovesNothingThoughThereAreMore) {
    for (const uint32_t procedure : {RVZD_PROC_RGY_FINDBYSTRING_ENTRY, RVZD_PROC_RGY_FINDBYUUID_ENTRY}) {
        world.peer.answer_once(procedure, batch({}, 1));
        world.peer.answer(procedure, batch({}));
    }
    EXPECT_EQ(remove(), TBS_ST_NOT_FOUND);
    EXPECT_EQ(searches(), 2u);
    EXPECT_THAT(removed, IsEmpty());
}

TEST_P(RemoveByKey, AFailedSearchIsItsStatus) {
    EXPECT_EQ(remove("nowhere"), TBS_ST_NOT_FOUND);
    EXPECT_EQ(last_error(), failed(search(), TBS_ST_NOT_FOUND));
    refuse_searches(TBS_ST_NO_ACCESS);
    EXPECT_EQ(remove(), TBS_ST_ERROR);
    EXPECT_EQ(last_error(), failed(search(), TBS_ST_ERROR));
}

TEST_P(RemoveByKey, AFailedRemovalEndsTheScan) {
    found.assign(25, "-tag=/a;");
    removal_status = TBS_ST_STALE_ID;
    EXPECT_EQ(remove(), TBS_ST_ERROR);
    EXPECT_EQ(removed.size(), 1u);
    EXPECT_EQ(last_error(), failed("rgy_remove_entry", TBS_ST_ERROR));
}

TEST_P(RemoveByKey, EachFailingAllocationIsAFailureAndLeaksNothing) {
    found = {"-tag=/a;", "-tag=/a;"};
    ASSERT_EQ(remove(), TBS_ST_OK);
    const auto before = sim::Holdings::now(world);
    tbs_status_t status = TBS_ST_OK;
    sim::sweep_allocations(
        world, [&] { status = remove(); },
        [&](int number) {
            EXPECT_NE(status, TBS_ST_OK);
            EXPECT_EQ(sim::Holdings::now(world), before) << number;
        });
    EXPECT_EQ(status, TBS_ST_OK);
}

TEST_P(RemoveByKey, ARaiseLeaksNothing) {
    found = {"-tag=/a;", "-tag=/a;"};
    ASSERT_EQ(remove(), TBS_ST_OK);
    const auto before = sim::Holdings::now(world);
    auto operation = [&] { remove(); };
    const int raises = sim::sweep_raises(world, operation, [&](int number) {
        sim::release_lock(rvzd_call_lock);
        EXPECT_EQ(registry_cache_lock.depth, 0u);
        EXPECT_EQ(rgy_hostname_mutex.depth, 0u);
        EXPECT_EQ(sim::Holdings::now(world), before) << number;
    });
    EXPECT_GE(raises, 10);
}

TEST_F(ByKey, EachFailingAllocationInAReaderIsAFailureAndLeaksNothing) {
    found = {std::string("-id=") + value_text + ";", "-id=2;"};
    for (const auto &reader : readers) {
        char text[text_size];
        ASSERT_EQ(reader.read("alpha", text, nullptr), TBS_ST_OK);
        const auto before = sim::Holdings::now(world);
        tbs_status_t status = TBS_ST_OK;
        sim::sweep_allocations(
            world, [&] { status = reader.read("alpha", text, nullptr); },
            [&](int number) {
                EXPECT_EQ(status, TBS_ST_ERROR) << reader.name;
                EXPECT_EQ(sim::Holdings::now(world), before) << reader.name << number;
            });
        EXPECT_EQ(status, TBS_ST_OK);
    }
}

TEST_F(ByKey, ARaiseInAReaderLeaksNothing) {
    found = {std::string("-id=") + value_text + ";", "-id=2;"};
    for (const auto &reader : readers) {
        char text[text_size];
        ASSERT_EQ(reader.read("alpha", text, nullptr), TBS_ST_OK);
        const auto before = sim::Holdings::now(world);
        auto operation = [&] { reader.read("alpha", text, nullptr); };
        const int raises = sim::sweep_raises(world, operation, [&](int number) {
            sim::release_lock(rvzd_call_lock);
            EXPECT_EQ(registry_cache_lock.depth, 0u);
            EXPECT_EQ(rgy_hostname_mutex.depth, 0u);
            EXPECT_EQ(sim::Holdings::now(world), before) << reader.name << number;
        });
        EXPECT_GE(raises, 10);
    }
}

} // namespace
