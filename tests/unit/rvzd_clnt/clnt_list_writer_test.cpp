// The client list file, to the letter.
#include <tests/unit/rvzd_clnt/broker_fixture.h>

#include <arpa/inet.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <sys/resource.h>

#include <support/date.h>
#include <tests/bad_files.h>
#include <tests/sim/without_standard_input.h>
#include <veliaxdr/rvzd_hosts.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ClientListFile : public BrokerTest {
protected:
    // What is opened is a file, of which the world keeps no books.
    ~ClientListFile() override { EXPECT_EQ(bad_files::open_descriptors(), descriptors); }

    static clnt_entry_t entry_at(const char *address) {
        clnt_entry_t entry = {};
        if (inet_pton(AF_INET, address, &entry.address.ipv4.sin_addr) == 1) {
            entry.address.ipv4.sin_family = AF_INET;
        } else {
            entry.address.ipv6.sin6_family = AF_INET6;
            inet_pton(AF_INET6, address, &entry.address.ipv6.sin6_addr);
        }
        return entry;
    }
    std::string path() const { return world.root() + "/clients"; }
    static sim::Message failed(int position, const std::string &path, int error_number) {
        return message_of(IMSG_ERROR, _clnt_list_rvzd_msg_table, position, path.c_str(), imsg_strerror(error_number));
    }
    std::string written(const std::vector<clnt_entry_t> &entries) {
        EXPECT_EQ(clnt_list_write_file(path().c_str(), static_cast<uint32_t>(entries.size()), entries.data()),
                  TBS_ST_OK);
        std::ostringstream text;
        text << std::ifstream(path()).rdbuf();
        return text.str();
    }

    const size_t descriptors = bad_files::open_descriptors();
};

TEST_F(ClientListFile, AnEntryWithoutTextsIsItsAddressAlone) {
    EXPECT_EQ(written({entry_at("10.0.0.1")}), "-dbversion=1.0;\n-address=10.0.0.1;\n");
}

TEST_F(ClientListFile, ACallerWritesItByItsPartsIntoAStreamOfItsOwn) {
    char *text = nullptr;
    size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    const clnt_entry_t entry = entry_at("10.0.0.1");
    clnt_list_write_header(stream);
    clnt_list_write_entry(stream, &entry);
    fclose(stream);
    EXPECT_STREQ(text, "-dbversion=1.0;\n-address=10.0.0.1;\n");
    free(text);
}

TEST_F(ClientListFile, IsWrittenAlsoWithoutAStandardInput) {
    const sim::WithoutStandardInput without;
    EXPECT_EQ(written({entry_at("10.0.0.1")}), "-dbversion=1.0;\n-address=10.0.0.1;\n");
}

TEST_F(ClientListFile, ItemsStandInTheirOrderAndTheOptionsEndTheLine) {
    clnt_entry_t entry = entry_at("fd00::7");
    const char *texts[] = {"h", "p", "v", "os", "ov", "m", "rh", "r", "reserved", "-no_servers two words"};
    char *clnt_hostinfo_t::*fields[] = {&clnt_hostinfo_t::hostname,      &clnt_hostinfo_t::product,
                                        &clnt_hostinfo_t::version,       &clnt_hostinfo_t::osname,
                                        &clnt_hostinfo_t::osversion,     &clnt_hostinfo_t::machine,
                                        &clnt_hostinfo_t::registry_host, &clnt_hostinfo_t::region,
                                        &clnt_hostinfo_t::reserved,      &clnt_hostinfo_t::options};
    for (size_t i = 0; i < std::size(fields); ++i)
        entry.hostinfo.*fields[i] = const_cast<char *>(texts[i]);
    entry.registry_time = 1'700'000'000;
    EXPECT_EQ(written({entry}), "-dbversion=1.0;\n-address=fd00::7;-hostname=h;-product=p;-version=v;-osname=os;"
                                "-osversion=ov;-machine=m;-registry_host=rh;-region=r;-registry=" +
                                    std::string(date_fmt_token_date_time(1'700'000'000)) + ";-no_servers two words\n");
}

TEST_F(ClientListFile, ARegistryContactIsMissingWithAZeroTime) {
    clnt_entry_t entry = entry_at("10.0.0.1");
    entry.reserved_time = 5;
    EXPECT_EQ(written({entry}).find("-registry="), std::string::npos);
}

TEST_F(ClientListFile, AnIpv4MappedAddressIsWrittenAsPlainIpv4) {
    EXPECT_EQ(written({entry_at("::ffff:10.0.0.9")}), "-dbversion=1.0;\n-address=10.0.0.9;\n");
}

TEST_F(ClientListFile, ValuesAreWrittenAsTheyStand) {
    clnt_entry_t entry = entry_at("10.0.0.1");
    char name[] = "a;b=c";
    entry.hostinfo.hostname = name;
    EXPECT_EQ(written({entry}), "-dbversion=1.0;\n-address=10.0.0.1;-hostname=a;b=c;\n");
}

TEST_F(ClientListFile, AnAddressOfNoFamilyIsToldAndTheLineWrittenAllTheSame) {
    clnt_entry_t entry = {};
    char name[] = "h";
    entry.hostinfo.hostname = name;
    EXPECT_EQ(written({entry}), "-dbversion=1.0;\n-address=;-hostname=h;\n");
    EXPECT_EQ(world.take_messages().at(0),
              sim::told_by("clnt_list", message_of(IMSG_ERROR, _tbs_cmsg_tbs_msg_table, 46, "sysutl_host_numeric",
                                                   "Unable to resolve numeric hostname and port")));
}

TEST_F(ClientListFile, AnEmptyListIsNotWrittenAndTheFileNotTouched) {
    world.write_file("clients", "as it was");
    const clnt_entry_t entry = entry_at("10.0.0.1");
    EXPECT_EQ(clnt_list_write_file(path().c_str(), 0, &entry), TBS_ST_INVALID_ARG);
    EXPECT_EQ(clnt_list_write_file(path().c_str(), 1, nullptr), TBS_ST_INVALID_ARG);
    EXPECT_EQ(clnt_list_write_file(nullptr, 1, &entry), TBS_ST_INVALID_ARG);
    std::string text;
    std::getline(std::ifstream(path()), text);
    EXPECT_EQ(text, "as it was");
    EXPECT_THAT(world.take_messages(), IsEmpty());
}

TEST_F(ClientListFile, APathThatCannotBeOpenedIsToldWithItsName) {
    const clnt_entry_t entry = entry_at("10.0.0.1");
    const std::string missing = world.root() + "/none/clients";
    EXPECT_EQ(clnt_list_write_file(missing.c_str(), 1, &entry), TBS_ST_NOT_SET);
    EXPECT_EQ(world.take_messages().at(0),
              sim::told_by("clnt_list", message_of(IMSG_ERROR, _tbs_cmsg_tbs_msg_table, 18, missing.c_str(),
                                                   imsg_strerror(ENOENT))));
}

TEST_F(ClientListFile, APipeThatNobodyReadsFromIsNotWaitedFor) {
    const clnt_entry_t entry = entry_at("10.0.0.1");
    const std::string pipe = world.root() + "/pipe";
    const bad_files::BadFile file(bad_files::Kind::pipe, pipe);
    EXPECT_EQ(clnt_list_write_file(pipe.c_str(), 1, &entry), tbs_errno2status(ENXIO));
    EXPECT_EQ(world.take_messages().at(0), sim::told_by("clnt_list", message_of(IMSG_ERROR, _tbs_cmsg_tbs_msg_table, 18,
                                                                                pipe.c_str(), imsg_strerror(ENXIO))));
}

TEST_F(ClientListFile, AFullDeviceIsToldAndNoDescriptorStaysOpen) {
    const clnt_entry_t entry = entry_at("10.0.0.1");
    EXPECT_EQ(clnt_list_write_file("/dev/full", 1, &entry), tbs_errno2status(ENOSPC));
    EXPECT_NE(tbs_errno2status(ENOSPC), TBS_ST_ERROR);
    EXPECT_THAT(world.take_messages(), ElementsAre(failed(8, "/dev/full", ENOSPC)));
    EXPECT_EQ(bad_files::open_descriptors(), descriptors);
}

TEST_F(ClientListFile, ACloseThatFailsFailsTheCallAndIsTold) {
    const clnt_entry_t entry = entry_at("10.0.0.1");
    world.faults.fclose = 0;
    world.faults.error_number = EDQUOT;
    EXPECT_EQ(clnt_list_write_file(path().c_str(), 1, &entry), tbs_errno2status(EDQUOT));
    EXPECT_THAT(world.take_messages(), ElementsAre(failed(9, path(), EDQUOT)));
    world.faults.fclose = sim::Faults::never;
}

// A disk that is full for a while: the messages that the writer prints on its way make room again.
class ShortDisk {
public:
    explicit ShortDisk(rlim_t bytes) {
        signal(SIGXFSZ, SIG_IGN); // a write beyond it fails with EFBIG
        getrlimit(RLIMIT_FSIZE, &usual);
        rlimit limit = usual;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~ShortDisk() { make_room(this, 0, nullptr, nullptr, 0, nullptr); }
    ShortDisk(const ShortDisk &) = delete;
    ShortDisk &operator=(const ShortDisk &) = delete;

    static void make_room(void *disk, int, const char *, const imsg_table_t *, int, const char *) {
        setrlimit(RLIMIT_FSIZE, &static_cast<ShortDisk *>(disk)->usual);
    }

private:
    rlimit usual;
};

TEST_F(ClientListFile, OneWriteThatFailsFailsTheCallWhateverTheLaterOnesDo) {
    std::vector<clnt_entry_t> entries(2000, entry_at("10.0.0.1"));
    entries[1000] = {}; // of no family: told in words when its line comes
    tbs_status_t status;
    {
        ShortDisk disk(4096);
        imsg_set_sink(ShortDisk::make_room, &disk);
        status = clnt_list_write_file(path().c_str(), static_cast<uint32_t>(entries.size()), entries.data());
    }
    EXPECT_EQ(status, tbs_errno2status(EFBIG));
    EXPECT_EQ(world.live_descriptors(), 0u);
}

TEST_F(ClientListFile, AWriteThatFailsIsToldWithTheNameOfTheFile) {
    const std::vector<clnt_entry_t> entries(2000, entry_at("10.0.0.1"));
    for (const std::string &full : {path(), std::string("/dev/full")}) {
        const ShortDisk disk(4096);
        const int error_number = full == path() ? EFBIG : ENOSPC;
        EXPECT_EQ(clnt_list_write_file(full.c_str(), static_cast<uint32_t>(entries.size()), entries.data()),
                  tbs_errno2status(error_number));
        EXPECT_THAT(world.take_messages(), testing::ElementsAre(message_of(IMSG_ERROR, _clnt_list_rvzd_msg_table, 7,
                                                                           full.c_str(), imsg_strerror(error_number))));
    }
}

TEST_F(ClientListFile, TracesTellOfTheStartAndOfTheLines) {
    world.verbosity = 4;
    world.traced = {"clnt_list:3", "clnt_list:4"};
    written({entry_at("10.0.0.1"), entry_at("10.0.0.2")});
    EXPECT_THAT(world.take_messages(),
                testing::ElementsAre(message_of(IMSG_TRACE, _clnt_list_rvzd_msg_table, 18, "clnt_list_write_file"),
                                     message_of(IMSG_TRACE, _clnt_list_rvzd_msg_table, 19, 2, path().c_str())));
}

TEST_F(ClientListFile, ARaiseAnywhereClosesTheFile) {
    const clnt_entry_t entry = entry_at("10.0.0.1");
    const std::string file = path(); // a raise runs no destructor
    const int raises = sim::sweep_raises(
        world, [&] { clnt_list_write_file(file.c_str(), 1, &entry); },
        [&](int number) { EXPECT_EQ(bad_files::open_descriptors(), descriptors) << number; });
    EXPECT_GE(raises, 1);
    EXPECT_EQ(written({entry}), "-dbversion=1.0;\n-address=10.0.0.1;\n");
}

} // namespace
