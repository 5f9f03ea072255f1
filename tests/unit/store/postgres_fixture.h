// A database and a user of its own for each test, in a server that may be stopped.
#pragma once

#include <tests/unit/store/store_fixture.h>

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <unistd.h>

#include <server/registry/postgres_store.h>
#include <tests/postgres/server.h>
#include <tests/unit/store/dropping_relay.h>

namespace velia::server {

enum class Kind { opened, away, busy, uncertain, refused };
inline void PrintTo(Kind kind, std::ostream *out) {
    *out << std::array{"opened", "away", "busy", "uncertain", "refused"}.at(static_cast<size_t>(kind));
}

template <class Body>
Kind kind_of(Body &&body, std::string *words = nullptr) {
    std::string own;
    std::string &told = words != nullptr ? *words : own;
    try {
        body();
        return Kind::opened;
    } catch (const StoreAway &error) {
        told = error.what();
        return Kind::away;
    } catch (const StoreBusy &error) {
        told = error.what();
        return Kind::busy;
    } catch (const StoreUncertain &error) {
        told = error.what();
        return Kind::uncertain;
    } catch (const StoreError &error) {
        told = error.what();
        return Kind::refused;
    }
}

struct PostgresStoreTest : testing::Test {
    PostgresStoreTest() {
        static int number = 0;
        database = "test" + std::to_string(++number);
        clerk = "clerk" + std::to_string(number);
        server.run("CREATE DATABASE " + database);
    }
    ~PostgresStoreTest() override { server.set_access("local all,replication all trust\n"); }

    std::string conninfo() const { return conninfo_as("tester"); }
    std::string conninfo_as(const std::string &user, const std::string &more = "") const {
        return server.conninfo_as(user, "dbname=" + database + " " + more);
    }
    std::string conninfo_over(const DroppingRelay &relay) const {
        return "host=" + relay.directory() + " user=tester dbname=" + database;
    }
    void run(const std::string &sql) const { server.run(sql, database); }
    std::string ask(const std::string &sql) const { return server.ask(sql, database); }

    std::unique_ptr<Store> open(const std::string &conninfo) {
        bool is_new = false;
        return open_postgres_store(conninfo, is_new);
    }
    std::unique_ptr<Store> open() { return open(conninfo()); }

    static Store::AddResult add(Store &to, const std::string &name) {
        const Entry entry = named(name);
        return to.add(RGY_DB_REGIONS, to.stamps(RGY_DB_REGIONS).pair, entry.identity, entry.text, entry.items);
    }
    static uint64_t count(Store &of) { return of.count(RGY_DB_REGIONS); }

    static bool eventually(const std::function<bool()> &condition) {
        for (int i = 0; i < 1000; ++i) {
            if (condition())
                return true;
            usleep(20'000);
        }
        return false;
    }

    // Again and again while it is away.
    template <class Body>
    static bool comes_back(Body &&body) {
        for (int i = 0; i < 400; ++i) {
            if (kind_of(body) == Kind::opened)
                return true;
            usleep(50'000);
        }
        return false;
    }
    void end_connections() {
        server.run("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE application_name = 'rvzd_server'");
    }

    Kind opening(const std::string &conninfo, std::string *words = nullptr) {
        return kind_of([&] { open(conninfo); }, words);
    }

    postgres_test::Server &server = postgres_test::server();
    std::string database;
    std::string clerk;
};

} // namespace velia::server
