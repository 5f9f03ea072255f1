// Programs that nobody here wrote read our bytes.
#include <gtest/gtest.h>

#include <fstream>

#include <tests/system/support/client.h>
#include <tests/system/support/daemon.h>
#include <tests/system/support/raw.h>

using namespace velia::system_test;

namespace {

std::string find_tool(const char *name) {
    for (const char *directory : {"/usr/sbin/", "/usr/bin/", "/sbin/", "/bin/"})
        if (std::filesystem::exists(directory + std::string(name)))
            return directory + std::string(name);
    return "";
}

std::string universal_port(uint16_t port) {
    return "." + std::to_string(port >> 8) + "." + std::to_string(port & 0xff);
}

void put_little(std::ofstream &file, uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i)
        file.put(static_cast<char>(value >> (8 * i)));
}

constexpr uint32_t link_type_ipv4 = 228;

// A capture file of datagrams between a client and the daemon, as the bytes went.
class Capture {
public:
    explicit Capture(const std::string &name) : file_(name, std::ios::binary) {
        for (const uint32_t word : {0xa1b2c3d4U, 0x00040002U, 0U, 0U, 65535U, link_type_ipv4})
            put_little(file_, word, 4);
    }

    void add(const Bytes &payload, uint16_t source_port, uint16_t destination_port) {
        Bytes packet;
        const auto total = static_cast<uint32_t>(28 + payload.size());
        for (const uint32_t word : {0x45000000U | total, 0U, 0x40110000U, 0x7f000001U, 0x7f000001U,
                                    uint32_t{source_port} << 16 | destination_port, (total - 20) << 16})
            put_word(packet, word);
        packet.insert(packet.end(), payload.begin(), payload.end());
        for (const uint32_t word : {++seconds_, 0U, total, total})
            put_little(file_, word, 4);
        file_.write(reinterpret_cast<const char *>(packet.data()), static_cast<std::streamsize>(packet.size()));
    }

private:
    std::ofstream file_;
    uint32_t seconds_ = 0;
};

} // namespace

TEST(Strangers, RpcinfoPingsTheDaemonOverEveryTransport) {
    const auto rpcinfo = find_tool("rpcinfo");
    ASSERT_FALSE(rpcinfo.empty());
    Site site;
    site.configure("");
    Daemon daemon(site);
    ASSERT_TRUE(daemon.is_ready());
    for (const auto &[netid, address] : {std::pair{"udp", "127.0.0.1"}, std::pair{"tcp", "127.0.0.1"},
                                         std::pair{"udp6", "::1"}, std::pair{"tcp6", "::1"}}) {
        const auto outcome =
            run(site, {rpcinfo, "-a", address + universal_port(site.port()), "-T", netid, "390512", "3"});
        EXPECT_EQ(outcome.status, 0) << netid;
        EXPECT_NE(outcome.output.find("program 390512 version 3 ready and waiting"), std::string::npos)
            << netid << ": " << outcome.output;
    }
}

TEST(Strangers, TsharkDecodesCallsAndReplies) {
    const auto tshark = find_tool("tshark");
    ASSERT_FALSE(tshark.empty());
    Site site;
    site.configure("");
    Daemon daemon(site);
    ASSERT_TRUE(daemon.is_ready());
    const std::vector<Bytes> calls = {
        call_message(0x1001, RVZD_PROGRAM, RVZD_VERSION, 0),
        call_message(0x1002, RVZD_PROGRAM, RVZD_VERSION, RVZD_PROC_CONTACT, contact_arguments(6)),
        call_message(0x1003, RVZD_PROGRAM, RVZD_VERSION, 99), call_message(0x1004, RVZD_PROGRAM, 2, 0)};
    {
        Capture capture(site.path("capture.pcap"));
        for (const auto &call : calls) {
            const auto reply = datagram_reply(site, call);
            ASSERT_TRUE(reply);
            capture.add(call, 50000, site.port());
            capture.add(*reply, site.port(), 50000);
        }
    }
    const auto outcome =
        run(site, {tshark, "-r", site.path("capture.pcap"), "-T", "fields", "-E", "separator=;", "-e", "rpc.xid", "-e",
                   "rpc.msgtyp", "-e", "rpc.program", "-e", "rpc.procedure", "-e", "rpc.state_accept"});
    EXPECT_EQ(outcome.status, 0) << outcome.output;
    for (const std::string line : {"0x00001001;0;390512;0;", "0x00001001;1;390512;0;0", "0x00001002;0;390512;1;",
                                   "0x00001002;1;390512;1;0", "0x00001003;1;390512;99;3", "0x00001004;1;390512;0;2"})
        EXPECT_NE(outcome.output.find(line + "\n"), std::string::npos) << line << " in\n" << outcome.output;
}
