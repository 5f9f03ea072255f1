// What anybody can send over IP: of each procedure of the scheduler a whole request, of which each word in turn is at
// each of its limits. So every field is, and every count, length and choice between records.
#include <array>

#include <sys/socket.h>

#include <tests/system/support/raw.h>
#include <tests/unit/sched/run_samples.h>
#include <tests/unit/sched/set_samples.h>
#include <veliaxdr/rvzd_procedure_rows.hpp>

#include "scheduler_fixture.h"

using namespace velia::system_test;

namespace {

constexpr std::array<uint32_t, 5> limits = {0, 1, 0x7fffffff, 0x80000000, 0xffffffff};
constexpr size_t word_bytes = 4;
constexpr uint64_t samples = 16;
constexpr uint32_t last_fragment = 0x80000000U;

// One connection for as long as the daemon keeps it.
class Stranger {
public:
    explicit Stranger(const Site &site) : socket_(site, SOCK_STREAM) {}

    // Whether the call was answered, by a reply with its number and nothing behind it.
    bool is_answered(uint32_t procedure, const Bytes &arguments) {
        ++number_;
        received_.clear();
        return socket_.send(as_record(call_message(number_, RVZD_PROGRAM, RVZD_VERSION, procedure, arguments))) &&
               has_record() && word_at(received_, 1) == number_;
    }

private:
    // Replies of the daemon are of one fragment.
    bool has_record() {
        while (received_.size() < word_bytes ||
               received_.size() < word_bytes + (word_at(received_, 0) & ~last_fragment)) {
            const auto piece = socket_.receive(30);
            if (!piece || piece->empty())
                return false;
            received_.insert(received_.end(), piece->begin(), piece->end());
        }
        return received_.size() == word_bytes + (word_at(received_, 0) & ~last_fragment);
    }

    RawSocket socket_;
    Bytes received_;
    uint32_t number_ = 0;
};

// The longest of some, which has the most in it.
template <class Row>
Bytes whole_request(const Row &row) {
    Bytes longest;
    for (uint64_t seed = 1; seed <= samples; ++seed) {
        wire_tests::Sampler sampler(seed);
        auto request = row.empty_request();
        std::string bytes;
        fill(sampler, request);
        if (wire_tests::encode(row.xdr_request, request, bytes) && bytes.size() > longest.size())
            longest.assign(bytes.begin(), bytes.end());
    }
    return longest;
}

struct SchedulerStrangers : SchedulerFixture {
    // All that the scheduler has, as its administrator sees it.
    std::string state() {
        uint32_t count = 0;
        sched_job_properties_t *jobs = nullptr;
        EXPECT_EQ(sched_get_jobs(handle, &count, &jobs), TBS_ST_OK);
        std::string text;
        for (uint32_t i = 0; i < count; ++i)
            text += std::to_string(jobs[i].ro.job_id) + " " + jobs[i].rw.name + " " + jobs[i].rw.description + " " +
                    std::to_string(jobs[i].ro.next_run_time) + " " + jobs[i].ro.last_modified.who + " " +
                    std::to_string(jobs[i].ro.last_completion.ended) + "\n";
        sched_free_jobs(handle, count, &jobs);
        tbs_acl_h_t acl = nullptr;
        EXPECT_EQ(sched_get_acl(handle, &acl), TBS_ST_OK);
        for (uint32_t i = 0; acl != nullptr && i < acl->count; ++i)
            text += std::string(acl->entries[i].identity) + " " + std::to_string(acl->entries[i].permissions) + "\n";
        xdr_free(reinterpret_cast<xdrproc_t>(xdr_tbs_acl_h_t), &acl);
        return text;
    }
    template <class Row>
    void try_all_limits(const Row &row) {
        SCOPED_TRACE(row.name);
        Stranger stranger(site);
        const Bytes whole = whole_request(row);
        ASSERT_FALSE(whole.empty());
        EXPECT_TRUE(stranger.is_answered(row.number, whole));
        for (size_t at = 0; at + word_bytes <= whole.size(); at += word_bytes)
            for (const uint32_t limit : limits) {
                Bytes changed = whole;
                for (size_t i = 0; i < word_bytes; ++i)
                    changed[at + i] = static_cast<unsigned char>(limit >> (8 * (word_bytes - 1 - i)));
                ASSERT_TRUE(stranger.is_answered(row.number, changed)) << "word " << at / word_bytes << ": " << limit;
            }
        EXPECT_TRUE(serves_a_good_client(site));
    }
};

} // namespace

TEST_F(SchedulerStrangers, AreAnsweredAtEveryLimitOfEveryFieldAndChangeNothing) {
    const auto mine = create(NewJob("mine", {"-c", "echo mine"}));
    ASSERT_EQ(run(mine), TBS_ST_OK);
    ran(mine);
    const std::string before = state();
    EXPECT_NE(before.find("mine"), std::string::npos);
    velia::for_each_scheduler_procedure([&](const auto &row) { try_all_limits(row); });
    velia::for_each_run_procedure([&](const auto &row) { try_all_limits(row); });
    velia::for_each_set_procedure([&](const auto &row) { try_all_limits(row); });
    EXPECT_EQ(state(), before);
    kill_daemon();
    restart();
    EXPECT_EQ(state(), before);
}
