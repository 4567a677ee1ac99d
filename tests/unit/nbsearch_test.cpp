// The NetBIOS search against print servers of kvtps: the query to the group,
// the records and ".CFG" names of the servers that answer (on time, late,
// from another name, in every pass), their EEPROM reads, and a search reply
// that comes during a read.
#include <gtest/gtest.h>

#include <memory>

#include "availps.h"
#include "discovery.h"
#include "kvthost.h"
#include "monitor.h"
#include "monitor_host.h"
#include "nbstartup.h"
#include "netbios_calls.h"

using namespace nbtest;

namespace {

class NbSearch : public ::testing::Test {
protected:
    void Start(const std::vector<kvtps::ServerConfig> &servers) {
        host = std::make_unique<kvttest::TestHost>(kvttest::HostOptions{.netbios = true, .timeScale = 0.5});
        InitializePrintMonitor(nullptr);
        std::string error;
        ASSERT_TRUE(emulator.Start(servers, &error)) << error;
        ASSERT_TRUE(bStartup = NBStartup());
        kvthost::RecordNetbiosCalls(true);
        TotalPrintServer = 0;
    }
    void TearDown() override {
        kvthost::SetNetbiosHook(nullptr);
        emulator.Stop();
        host.reset();
    }
    // The sends to a name, by their call name.
    static size_t SendsTo(const std::string &name) {
        size_t n = 0;
        for (const auto &c : kvthost::NetbiosCalls())
            n += (c.command & ~ASYNCH) == NCBDGSEND && c.callname == kvtnb::MakeName(name);
        return n;
    }
    static int Record(const std::u16string &name) {
        for (int i = 0; i < TotalPrintServer; ++i)
            if (name == reinterpret_cast<const char16_t *>(AvailPS[i].Name)) return i;
        return -1;
    }

    std::unique_ptr<kvttest::TestHost> host;
    kvtps::Emulator emulator;
};

kvtps::ServerConfig Server(const char *name, const char *address, const std::string &shortName,
                           const kvtps::NbFaults &netbios = {}) {
    kvtps::ServerConfig c;
    c.name = name;
    c.address = address;
    c.shortName = shortName;
    c.netbios = netbios;
    c.ipx = false;
    return c;
}

TEST(NbCfgNames, AreTheShortNameUpToItsFirstZeroByteAndDotCfg) {
    const struct {
        const char *shortName;  // 8 bytes
        const char *cfg;
    } cases[] = {{"ABCDEFGH", "ABCDEFGH.CFG"}, {"ABCDEF\0X", "ABCDEF.CFG"}, {"\0BCDEFGH", ".CFG"}};
    for (const auto &c : cases) {
        char out[NB_CFG_NAME_BYTES];
        std::memset(out, 'Z', sizeof out);
        NBCfgName(reinterpret_cast<const BYTE *>(c.shortName), out);
        EXPECT_STREQ(out, c.cfg);
    }
}

// Every server is listed once, whether it answers on time, late (in a later
// pass), from another name, or in all three passes; each is read by its
// ".CFG" name, which has its blanks on the wire, five tries more when the read
// goes unanswered; the query goes out four times.
TEST_F(NbSearch, ListsEachServerOnceAndReadsItByItsCfgName) {
    kvtps::NbFaults late, otherName, groupOnly;
    late.lateMs = 700;
    otherName.replyName = "ELSEWHERE";
    groupOnly.groupOnly = true;
    const struct {
        kvtps::ServerConfig config;
        std::string cfg;
        size_t reads;  // sent to its ".CFG" name: 1 when answered at once, 2 late, 6 never
    } cases[] = {
        {Server("PS8", "127.0.0.2", "ABCDEFGH"), "ABCDEFGH.CFG", 1},
        {Server("PS6", "127.0.0.3", "ABCDEF", late), "ABCDEF.CFG", 2},
        {Server("PS0", "127.0.0.4", std::string(1, '\0'), otherName), ".CFG", 1},
        {Server("PSG", "127.0.0.5", "PSG", groupOnly), "PSG.CFG", 1 + NB_EEPROM_TRIES},
    };
    std::vector<kvtps::ServerConfig> configs;
    for (const auto &c : cases) configs.push_back(c.config);
    Start(configs);
    EXPECT_TRUE(NBSearch());
    EXPECT_EQ(TotalPrintServer, 4);
    EXPECT_EQ(SendsTo("KVTR.GROUP"), 4u);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.config.name);
        const int index = Record(std::u16string(c.config.name.begin(), c.config.name.end()));
        ASSERT_GE(index, 0);
        EXPECT_EQ(SendsTo(c.cfg), c.reads);
        const BYTE node[6] = {0, 0, 0x7F, 0, 0, static_cast<BYTE>(c.config.address.back() - '0')};
        EXPECT_EQ(std::memcmp(AvailPS[index].NodeID, node, 6) == 0, c.reads < 1 + NB_EEPROM_TRIES) << "the image in the record";
    }
    EXPECT_EQ(kvthost::NetbiosPendingReceives(), 0u);
}

// A search reply that reaches the read's receive first fails its test; the
// try sends again, and the image comes with the next.
TEST_F(NbSearch, ASearchReplyDuringTheReadCostsOneTry) {
    Start({Server("PS1", "127.0.0.2", "PS1")});
    std::string searchReply = std::string("PS\x80\x00\x01\x04", 6) + std::string(68, '\0');
    searchReply.replace(16, 5, "OTHER");
    kvthost::SetNetbiosHook([&, sent = std::make_shared<bool>(false)](const NCB &ncb) -> uint8_t {
        if (ncb.ncb_command == NCBDGSEND && Text(ncb.ncb_callname, NCBNAMSZ) == "PS1.CFG         " && !*sent) {
            *sent = true;
            Send(Add("STRANGER"), Text(ncb.ncb_name, NCBNAMSZ), searchReply);
            EXPECT_TRUE(Soon([] { return kvthost::NetbiosPendingReceives() == 0; }));
        }
        return NRC_GOODRET;
    });
    EXPECT_TRUE(NBSearch());
    ASSERT_EQ(TotalPrintServer, 1) << "a reply to the search that comes during the read isn't listed";
    EXPECT_EQ(SendsTo("PS1.CFG"), 2u);
    const BYTE node[6] = {0, 0, 0x7F, 0, 0, 2};
    EXPECT_EQ(std::memcmp(AvailPS[0].NodeID, node, 6), 0);
    EXPECT_EQ(kvthost::NetbiosPendingReceives(), 0u);
}

}  // namespace
