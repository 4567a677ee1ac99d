// kvtmon configure's command line: any arguments (the input cut at its zero
// bytes) are refused with a message or give a port and answers a dialog can
// take.
#include <algorithm>

#include "fuzz_common.h"
#include "ui_driver.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::vector<std::string> args(1);
    for (size_t i = 0; i < size; ++i)
        if (data[i] == 0) args.emplace_back();
        else args.back().push_back(static_cast<char>(data[i]));
    kvtmon::ConfigureAnswers a;
    std::string error;
    if (!kvtmon::ParseConfigureArgs(args, &a, &error)) {
        if (error.empty()) kvtfuzz::Broken("refused without a message");
        return 0;
    }
    bool typeable = !a.queue || std::all_of(a.queue->begin(), a.queue->end(), [](char c) { return c >= 0x20 && c < 0x7F; });
    if (a.port.empty() || (a.protocol && kvtmon::ProtocolButton(*a.protocol) == 0) || !typeable)
        kvtfuzz::Broken("answers that no dialog can take");
    return 0;
}
