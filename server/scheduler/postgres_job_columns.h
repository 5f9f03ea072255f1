// Jobs and notes of changes as columns of their tables.
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include <server/scheduler/jobs.h>
#include <server/scheduler/postgres_job_statements.h>

namespace velia::server {

constexpr int64_t nobody = int64_t{1} << 32; // the number of no user

// What of a body the database has to know.
struct BodyFacts {
    explicit BodyFacts(const std::string &bytes) {
        JobBody body(bytes);
        if (!body.is_whole())
            return;
        const auto &rw = body.get().rw;
        name = rw.name;
        if (rw.schedule.kind == SCHED_KIND_SEQUENTIAL)
            follows = rw.schedule.u.sequential.follows_job;
    }
    std::string name;
    int64_t follows = 0;
};

inline int64_t stored_owner(const JobRow &row) {
    return row.owner ? int64_t{*row.owner} : nobody;
}

// Of rows that go in one statement: an array for each column, the numbers first.
template <size_t number_count, size_t text_count>
class Columns {
public:
    void add(const std::array<int64_t, number_count> &numbers, const std::array<std::string_view, text_count> &texts) {
        for (size_t i = 0; i < number_count; ++i)
            numbers_[i].push_back(numbers[i]);
        for (size_t i = 0; i < text_count; ++i)
            texts_[i].emplace_back(texts[i]);
    }
    template <class... First>
    void put(Postgres &database, const PostgresStatement &statement, First... first) const {
        std::apply([&](const auto &...columns) { database.run(statement, first..., columns...); },
                   std::tuple_cat(numbers_, texts_));
    }

private:
    std::array<std::vector<int64_t>, number_count> numbers_;
    std::array<std::vector<std::string>, text_count> texts_;
};

struct JobColumns : Columns<9, 8> {
    void add_row(const JobRow &row) {
        const BodyFacts facts(row.body);
        add({row.id, static_cast<int64_t>(mark_of(row.body)), facts.follows, stored_owner(row), row.created.when,
             row.changed.when, row.considered, row.changed_start, row.is_predefined},
            {row.body, facts.name, row.host, row.created.who, row.created.where, row.changed.who, row.changed.where,
             row.definition});
    }
    void put_in(Postgres &database, int64_t at) const { put(database, job_statements::add, at); }
};

struct NoteColumns : Columns<3, 5> {
    void add_row(const ChangeRow &row) {
        add({row.number, row.deed.when, row.job}, {row.deed.who, row.deed.where, row.what, row.job_name, row.fields});
    }
    void put_in(Postgres &database, int64_t /*at*/) const { put(database, job_statements::note); }
};

} // namespace velia::server
