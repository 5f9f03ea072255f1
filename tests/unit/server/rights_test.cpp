// The table of rights: whole, as the page for people has it, and as the gate keeps it.
#include <server/rights/gate.h>

#include <arpa/inet.h>
#include <cstring>
#include <fstream>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veliaxdr/rvzd_procedure_rows.hpp>

using namespace velia::server;
using testing::ElementsAreArray;

namespace {

using Lines = std::vector<std::string>;

std::string row_of(const std::vector<std::string> &cells) {
    std::string row = "|";
    for (const auto &cell : cells)
        row += " " + cell + " |";
    return row;
}

std::string name_of(Right right) {
    for (const RightTerms &terms : right_terms)
        if (terms.right == right)
            return terms.name;
    return "";
}

Lines rows_of_code() {
    Lines rows = {row_of({"Right", "From where", "As whom", "How it is proven"}), "|---|---|---|---|"};
    for (const RightTerms &terms : right_terms)
        rows.push_back(row_of({terms.name, terms.from_where, terms.as_whom, terms.how_proven}));
    rows.insert(rows.end(), {row_of({"Procedure", "Operation", "Right"}), "|---|---|---|"});
    for (const RightsRow &row : rights_rows)
        rows.push_back(row_of({row.name, row.operation_name, name_of(row.right)}));
    return rows;
}

Lines rows_of_page() {
    Lines rows;
    std::ifstream page(SOURCE_FOLDER "/doc/SECURITY.md");
    for (std::string line; std::getline(page, line);)
        if (line.starts_with("|"))
            rows.push_back(line);
    return rows;
}

Caller known(uid_t uid, pid_t pid = 500) {
    Caller caller;
    caller.known = KnownCaller{pid, uid, uid};
    return caller;
}

Caller stranger(const char *address) {
    Caller caller;
    caller.peer.ipv4.sin_family = AF_INET;
    if (inet_pton(AF_INET, address, &caller.peer.ipv4.sin_addr) != 1) {
        caller.peer.ipv6.sin6_family = AF_INET6;
        inet_pton(AF_INET6, address, &caller.peer.ipv6.sin6_addr);
    }
    return caller;
}

AccessLine line(const char *place, const char *rights) {
    const char *fault = nullptr;
    const auto made = access_line(place, rights, fault);
    EXPECT_TRUE(made) << fault;
    return made.value_or(AccessLine{});
}

// A procedure for each right but reporting.
constexpr uint32_t to_meet = RVZD_PROC_CONTACT;
constexpr uint32_t to_read = RVZD_PROC_LIST_SERVERS;
constexpr uint32_t to_enroll = RVZD_PROC_CLNT_LIST_REGISTER;
constexpr uint32_t to_write = RVZD_PROC_RGY_ADD_ENTRY;
constexpr uint32_t to_administer = RVZD_PROC_TOGGLE_SERVER_RESTART;

std::vector<bool> permitted(const Gate &gate, const Caller &caller) {
    std::vector<bool> all;
    for (const uint32_t procedure : {to_meet, to_read, to_enroll, to_write, to_administer})
        all.push_back(gate.permits({procedure}, caller));
    return all;
}

const std::vector<bool> by_default = {true, true, true, false, false};
const std::vector<bool> nothing = {true, false, false, false, false};
const std::vector<bool> everything = {true, true, true, true, true};

} // namespace

TEST(Rights, HaveARowForEachProcedureUnderItsName) {
    std::set<std::pair<uint32_t, std::string>> procedures;
    std::set<std::pair<uint32_t, std::string>> rows;
    velia::for_each_procedure(
        [&](const auto &procedure) { procedures.emplace(procedure.number, procedure.name + strlen("rvzd_")); });
    velia::for_each_scheduler_procedure(
        [&](const auto &procedure) { procedures.emplace(procedure.number, procedure.name); });
    velia::for_each_run_procedure([&](const auto &procedure) { procedures.emplace(procedure.number, procedure.name); });
    velia::for_each_set_procedure([&](const auto &procedure) { procedures.emplace(procedure.number, procedure.name); });
    for (const RightsRow &row : rights_rows)
        if (row.operation == any_operation) {
            EXPECT_TRUE(rows.emplace(row.procedure, row.name).second) << row.name << " has two";
        }
    EXPECT_EQ(rows, procedures);
}

TEST(Rights, AreOnThePageForPeopleAsInTheCode) {
    EXPECT_THAT(rows_of_page(), ElementsAreArray(rows_of_code()));
}

TEST(Rights, ToWhatHasNoRowAreTheAdministrators) {
    EXPECT_EQ(right_to(9999, any_operation), Right::administer);
    EXPECT_EQ(right_to(RVZD_PROC_RGY_SVR_CONF_CHANGE, 77), Right::administer);
}

TEST(Rights, OfKnownCallersAreByTheirUser) {
    const Gate gate(nullptr);
    EXPECT_EQ(permitted(gate, known(0)), everything);
    EXPECT_EQ(permitted(gate, known(geteuid())), everything);
    EXPECT_EQ(permitted(gate, known(geteuid() + 1)), (std::vector<bool>{true, true, true, true, false}));
}

TEST(Rights, OfStrangersAreByTheFirstLineWithTheirAddress) {
    Gate gate(nullptr);
    EXPECT_EQ(permitted(gate, stranger("127.0.0.1")), by_default) << "from this host, too";
    gate.set_access({line("10.1.2.3", "read,register,write,administer"), line("10.1.0.0/16", "none"),
                     line("fd00::/8", "read"), line("::ffff:11.0.0.0/104", "none"), line("12.16.0.0/12", "none")});
    EXPECT_EQ(permitted(gate, stranger("10.1.2.3")), everything);
    EXPECT_EQ(permitted(gate, stranger("::ffff:10.1.2.3")), everything) << "the same address in its wrapping";
    EXPECT_EQ(permitted(gate, stranger("10.1.2.4")), nothing);
    EXPECT_EQ(permitted(gate, stranger("10.2.2.3")), by_default);
    EXPECT_EQ(permitted(gate, stranger("11.2.2.3")), nothing);
    EXPECT_EQ(permitted(gate, stranger("12.31.0.1")), nothing);
    EXPECT_EQ(permitted(gate, stranger("12.32.0.1")), by_default);
    EXPECT_EQ(permitted(gate, stranger("fd12::1")), (std::vector<bool>{true, true, false, false, false}));
    EXPECT_EQ(permitted(gate, stranger("fe12::1")), by_default);
    gate.set_access({line("any", "none")});
    EXPECT_EQ(permitted(gate, stranger("fe12::1")), nothing);
    EXPECT_EQ(permitted(gate, known(geteuid())), everything) << "no line is about callers of the host";
}

TEST(Rights, ToReportAreTheProcessesThemselves) {
    constexpr int32_t child = 600;
    const Gate gate([](int32_t pid, const Caller &) { return pid == child; });
    const auto may_report = [&](int32_t pid, const Caller &caller) {
        return gate.permits({RVZD_PROC_SERVER_IDLE, any_operation, pid}, caller);
    };
    EXPECT_TRUE(may_report(500, known(1000, 500)));
    EXPECT_FALSE(may_report(501, known(1000, 500)));
    EXPECT_FALSE(may_report(501, known(0, 500))) << "nor does root speak for others";
    EXPECT_FALSE(may_report(child, known(1000, 500)));
    EXPECT_TRUE(may_report(child, stranger("127.0.0.1")));
    EXPECT_FALSE(may_report(500, stranger("127.0.0.1")));
    for (const int32_t nobody : {1, 0, -1})
        EXPECT_FALSE(may_report(nobody, known(0, nobody))) << nobody;
}
