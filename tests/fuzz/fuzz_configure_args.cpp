// kvtmon configure's command line: any arguments (the input cut at its zero
// bytes) are refused with a message or give a port and answers a dialog can
// take.
#include <string>
#include <vector>

#include "fuzz_common.h"
#include "ui_driver.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::vector<std::string> args(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0) args.emplace_back();
        else args.back().push_back(static_cast<char>(data[i]));
    }
    kvtmon::ConfigureAnswers answers;
    std::string error;
    if (!kvtmon::ParseConfigureArgs(args, &answers, &error)) {
        if (error.empty()) kvtfuzz::Broken("refused without a message");
        return 0;
    }
    if (answers.port.empty()) kvtfuzz::Broken("no port");
    if (answers.protocol && kvtmon::ProtocolButton(*answers.protocol) == 0) kvtfuzz::Broken("a protocol without a button");
    if (answers.queue)
        for (unsigned char c : *answers.queue)
            if (c < 0x20 || c >= 0x7F) kvtfuzz::Broken("a queue name that cannot be typed");
    return 0;
}
