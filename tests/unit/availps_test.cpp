// The discovery table, the list file record and the management datagrams'
// format: queries to the byte, replies by prefix and head, every field of a
// list file record where it belongs, and nothing written past a field, a
// record or the table.
#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "fixture.h"

using namespace kvttest;

namespace {

Bytes Query(MgmtCarrier carrier, BYTE command, const BYTE *node) {
    BYTE query[MGMT_QUERY_MAX_BYTES + 4];
    std::memset(query, 0xAA, sizeof query);
    int n = BuildManagementQuery(carrier, command, node, query);
    EXPECT_EQ(query[MGMT_QUERY_MAX_BYTES], 0xAA) << "written past the query";
    return Bytes(reinterpret_cast<const char *>(query), n);
}

TEST(ManagementQuery, EachCarrierToTheByte) {
    const BYTE node[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    EXPECT_EQ(Query(MGMT_CARRIER_UDP, MGMT_QUEUE_NAMES, node), Bytes("\x00\x11\x22\x33\x44\x55\x00\x11\xFF\xEE", 10));
    EXPECT_EQ(Query(MGMT_CARRIER_UDP, MGMT_SEARCH, nullptr), Bytes("\xFF\xFF\xFF\xFF\xFF\xFF\x00\x04\xFF\xFB", 10));
    EXPECT_EQ(Query(MGMT_CARRIER_IPX, MGMT_SEARCH, nullptr), Bytes("\x00\x04\xFF\xFB", 4));
    EXPECT_EQ(Query(MGMT_CARRIER_NETBIOS, MGMT_SEARCH, nullptr), Bytes("PS\x00\x00\x00\x04\xFF\xFB", 8));
    EXPECT_EQ(Query(MGMT_CARRIER_UDP, MGMT_READ_EEPROM, node).substr(6), Bytes("\x00\x02\xFF\xFD", 4));
    EXPECT_EQ(Query(MGMT_CARRIER_UDP, MGMT_STATUS, node).substr(6), Bytes("\x00\x05\xFF\xFA", 4));
}

TEST(ManagementReply, IsKnownByItsPrefixAndHeadAlone) {
    const Bytes udp = Reply(Node(9, 8, 7, 6, 5, 4), MGMT_SEARCH, 66);
    EXPECT_TRUE(IsManagementReply(MGMT_CARRIER_UDP, Data(udp), Size(udp), MGMT_SEARCH)) << "any node";
    EXPECT_FALSE(IsManagementReply(MGMT_CARRIER_UDP, Data(udp), Size(udp), MGMT_STATUS));
    EXPECT_FALSE(IsManagementReply(MGMT_CARRIER_UDP, Data(udp), 7, MGMT_SEARCH)) << "the head cut off";
    Bytes query = udp;
    query[6] = 0x00;
    EXPECT_FALSE(IsManagementReply(MGMT_CARRIER_UDP, Data(query), Size(query), MGMT_SEARCH)) << "a query";

    const Bytes ipx("\x01\x04\x00\x00", 4);
    EXPECT_TRUE(IsManagementReply(MGMT_CARRIER_IPX, Data(ipx), Size(ipx), MGMT_SEARCH));
    EXPECT_FALSE(IsManagementReply(MGMT_CARRIER_IPX, Data(ipx), 1, MGMT_SEARCH));

    const Bytes netbios("PS\x80\x00\x01\x04\x00\x00", 8);
    EXPECT_TRUE(IsManagementReply(MGMT_CARRIER_NETBIOS, Data(netbios), Size(netbios), MGMT_SEARCH));
    const Bytes request("PS\x00\x00\x01\x04\x00\x00", 8);
    EXPECT_FALSE(IsManagementReply(MGMT_CARRIER_NETBIOS, Data(request), Size(request), MGMT_SEARCH));
    EXPECT_FALSE(IsManagementReply(MGMT_CARRIER_NETBIOS, Data(netbios), 5, MGMT_SEARCH));
}

// ---- the list file ----------------------------------------------------------------------

Bytes ListRecord(const std::string &name, const Bytes &ip = Bytes("\x0A\x01\x02\x03", 4)) {
    Bytes r(LIST_RECORD_BYTES, '\0');
    std::memcpy(&r[0], name.data(), std::min<size_t>(name.size(), 48));
    std::memcpy(&r[48], ip.data(), 4);
    for (int i = 52; i < 69; ++i) r[i] = char(0xEE);  // not used
    r[69] = char(0x81);
    const Bytes node = Node(0x00, 0x40, 0x01, 0x02, 0x03, 0x04);
    std::memcpy(&r[70], node.data(), 6);
    r[76] = 0;
    r[77] = 5;
    r[78] = 2, r[79] = 1, r[80] = 4;
    std::memcpy(&r[81], "lp1", 3);
    std::memcpy(&r[145], "queue two", 9);
    std::memcpy(&r[209], "\xE9t\xE9", 3);  // bytes above 0x7F widen as they are
    for (int i = 273; i < 278; ++i) r[i] = char(0xEE);
    return r;
}

std::u16string Wide(const WCHAR *text) { return std::u16string(reinterpret_cast<const char16_t *>(text)); }

class ListFile : public MonitorTest {
protected:
    void SetUp() override { StartHost(); }
};

// Writes the bytes as a list file and reads it as the add-port flow does.
int ReadFileOf(const Bytes &bytes, const char16_t *path = u"C:\\Windows\\SysWOW64\\KVTLIST.BIN") {
    std::ofstream(kvthost::MapPath(path), std::ios::binary) << bytes;
    HANDLE file = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0x04000080, nullptr);
    EXPECT_NE(file, INVALID_HANDLE_VALUE);
    const int records = ReadListRecords(file);
    CloseHandle(file);
    return records;
}

TEST_F(ListFile, EachFieldOfARecordGoesWhereItBelongs) {
    AvailPSRecord entry;
    std::memset(&entry, 0x5A, sizeof entry);  // what the slot held before
    const Bytes record = ListRecord("Office PS");
    AvailPSFromListRecord(Data(record), &entry);
    EXPECT_EQ(Wide(entry.Name), u"Office PS");
    EXPECT_EQ(Bytes(reinterpret_cast<char *>(&entry.IPAddress), 4), Bytes("\x0A\x01\x02\x03", 4)) << "network order";
    EXPECT_EQ(entry.ModelType, 0x81);
    EXPECT_EQ(Bytes(reinterpret_cast<char *>(entry.NodeID), 6), Node(0x00, 0x40, 0x01, 0x02, 0x03, 0x04));
    EXPECT_EQ(entry.AutoProtocol, 0);
    EXPECT_EQ(entry.PortMask, 5);
    EXPECT_EQ(Bytes(reinterpret_cast<char *>(entry.PortProtocol), 3), Bytes("\x02\x01\x04", 3));
    EXPECT_EQ(Wide(entry.QueueName[0].Wide), u"lp1");
    EXPECT_EQ(Wide(entry.QueueName[1].Wide), u"queue two");
    EXPECT_EQ(Wide(entry.QueueName[2].Wide), u"\u00E9t\u00E9");
    // Flags, Reserved and Type don't come from the file.
    EXPECT_TRUE(entry.Flags == 0x5A && entry.Reserved[0] == 0x5A && entry.Type == 0x5A);
}

TEST_F(ListFile, TextsWithoutATerminatorEndWithinTheirFieldAndTheirSlot) {
    Bytes record = ListRecord(std::string(48, 'N'));
    std::memset(&record[81], 'q', 64);
    std::memset(&record[145], 'r', 64);
    std::memset(&record[209], 's', 64);
    AvailPSRecord entry;
    std::memset(&entry, 0, sizeof entry);
    AvailPSFromListRecord(Data(record), &entry);
    EXPECT_EQ(Wide(entry.Name), std::u16string(47, u'N'));
    EXPECT_EQ(Wide(entry.QueueName[0].Wide), std::u16string(63, u'q'));
    EXPECT_EQ(Wide(entry.QueueName[2].Wide), std::u16string(63, u's'));
    EXPECT_EQ(entry.Type, 0) << "the last slot's terminator stays inside it";
}

TEST_F(ListFile, RecordsFollowTheTableAndAShortLastPieceKeepsTheBytesBefore) {
    EXPECT_EQ(ReadFileOf(""), 0);
    EXPECT_EQ(TotalPrintServer, 0);

    TotalPrintServer = 1;  // a record that is there already stays first
    Bytes file = ListRecord("first") + ListRecord("second", Bytes("\xC0\xA8\x00\x07", 4)) + Bytes("third\0", 6);
    EXPECT_EQ(ReadFileOf(file), 3);
    ASSERT_EQ(TotalPrintServer, 4);
    EXPECT_EQ(NameOf(1), "first");
    EXPECT_EQ(NameOf(2), "second");
    EXPECT_EQ(NameOf(3), "third");
    EXPECT_EQ(AvailPS[3].IPAddress, AvailPS[2].IPAddress) << "the bytes the piece didn't bring";
    EXPECT_EQ(Wide(AvailPS[3].QueueName[1].Wide), u"queue two");
}

// Two list files read at once (the table's lock keeps the readers apart):
// the table fills to its last record and no further, every record whole,
// each file's records in their order.
TEST_F(ListFile, TwoReadersAtOnceFillTheTableAndNoFurther) {
    auto read = [](const char16_t *path, char letter) {
        Bytes file;
        for (int i = 0; i < 80; ++i) file += ListRecord(std::string(1, letter) + std::to_string(100 + i));
        ReadFileOf(file, path);
    };
    std::thread a(read, u"C:\\Windows\\SysWOW64\\A.BIN", 'A');
    std::thread b(read, u"C:\\Windows\\SysWOW64\\B.BIN", 'B');
    a.join();
    b.join();
    ASSERT_EQ(TotalPrintServer, AVAILPS_RECORDS);
    int next[2] = {100, 100};
    for (int i = 0; i < AVAILPS_RECORDS; ++i) {
        std::string name = NameOf(i);
        ASSERT_EQ(name.size(), 4u) << i;
        int file = name[0] == 'A' ? 0 : 1;
        EXPECT_EQ(std::stoi(name.substr(1)), next[file]++) << i;
    }
}

TEST_F(ListFile, AServerBeyondTheHundredthIsLeftOutAndTheFileReadToItsEnd) {
    Bytes file;
    for (int i = 1; i <= 103; ++i) file += ListRecord("S" + std::to_string(i));
    EXPECT_EQ(ReadFileOf(file), 103);
    EXPECT_EQ(TotalPrintServer, AVAILPS_RECORDS);
    EXPECT_EQ(NameOf(99), "S100");
    EXPECT_EQ(LogLinesStartingWith("AvailPS full, left out: S10"),
              (std::vector<std::string>{"AvailPS full, left out: S101", "AvailPS full, left out: S102",
                                        "AvailPS full, left out: S103"}));
    EXPECT_FALSE(AddListRecord(Data(ListRecord("S104"))));
    EXPECT_EQ(TotalPrintServer, AVAILPS_RECORDS);
}

}  // namespace
