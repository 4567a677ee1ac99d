// The NetBIOS search against a print server of kvtps, with a search reply
// that comes during its EEPROM read (the search itself against servers of
// every kind: integration_tests KvtmonDiscover.OverNetbios...).
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

    std::unique_ptr<kvttest::TestHost> host;
    kvtps::Emulator emulator;
};

// A search reply that reaches the read's receive first fails its test; the
// try sends again, and the image comes with the next.
TEST_F(NbSearch, ASearchReplyDuringTheReadCostsOneTry) {
    kvtps::ServerConfig ps1;
    ps1.name = "PS1";
    ps1.ipx = false;
    Start({ps1});
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
    EXPECT_EQ(emulator.NetbiosCounters("PS1").cfgReadEeprom, 2u);
    const BYTE node[6] = {0, 0, 0x7F, 0, 0, 2};
    EXPECT_EQ(std::memcmp(AvailPS[0].NodeID, node, 6), 0);
    EXPECT_EQ(kvthost::NetbiosPendingReceives(), 0u);
}

}  // namespace
