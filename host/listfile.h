// List files for people: KVTLIST.BIN, the records of saved print servers that
// the add-port flow reads, made from a small text or JSON description and
// shown in the same text, so that what `show` prints `make` takes back.
//
// The text: one print server per line, its name and address, then fields:
//   PS1 127.0.0.2 model=3 node=00-00-7F-00-00-02 auto=1 ports=1,2,3
//       protocols=tcpip,auto,ipx queue1=lp queue2=lpt2 queue3=lpt3
// A value may be quoted ("a b", with \" \\ and \xHH inside), # begins a
// comment.  The JSON: an array of objects with the same keys, "queues" an
// array of three names, "ports" and "protocols" arrays.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kvtmon {

constexpr size_t kListRecordBytes = 278;
constexpr size_t kListServers = 100;  // the monitor's table: what lies beyond is left out

// One record as the monitor reads it.
struct ListServer {
    std::string name;         // at most 47 bytes, no zero byte
    uint32_t address = 0;     // host order; 0: "Automatic IP"
    uint8_t model = 1;        // its two low bits: the printer ports
    uint8_t node[6] = {};
    uint8_t autoProtocol = 1;
    uint8_t mask = 0;         // bit values 1, 2, 4: printer ports 1, 2, 3 are made
    uint8_t protocols[3] = {};
    std::string queues[3];    // at most 63 bytes each
};

// A description (text or JSON) into servers; notes name what the monitor
// will do otherwise than one might think (a queue name cut to 31 characters,
// a port the model lacks).  False with a message for anything that doesn't
// fit its field.
bool ParseListDescription(const std::string &description, std::vector<ListServer> *servers, std::vector<std::string> *notes,
                   std::string *error);
// The records of the servers, 278 bytes each.
std::string EncodeListFile(const std::vector<ListServer> &servers);
// The records of a list file; false with a message for a file that is none.
bool DecodeListFile(const std::string &bytes, std::vector<ListServer> *servers, std::string *error);
// The servers as the text description, and as JSON.
std::string ListDescriptionText(const std::vector<ListServer> &servers);
std::string ListDescriptionJson(const std::vector<ListServer> &servers);

int ListfileCommand(int argc, char **argv);

}  // namespace kvtmon
