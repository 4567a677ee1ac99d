// kvtmon add's command line: any arguments (the input cut at its zero bytes)
// are refused with a message or give one way of adding and answers dialog
// 200 can take.
#include <algorithm>

#include "fuzz_common.h"
#include "ui_driver.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::vector<std::string> args(1);
    for (size_t i = 0; i < size; ++i)
        if (data[i] == 0) args.emplace_back();
        else args.back().push_back(static_cast<char>(data[i]));
    kvtmon::AddAnswers a;
    std::string error;
    if (!kvtmon::ParseAddArgs(args, &a, &error)) {
        if (error.empty()) kvtfuzz::Broken("refused without a message");
        return 0;
    }
    std::string typed;
    for (const auto &q : a.queues) typed += q.value_or("");
    for (const auto &[name, address] : a.creates) typed += name.empty() ? "\n" : name + address;
    if (a.all + a.list.has_value() + a.Given() > 1 || (a.lpt && (*a.lpt < 1 || *a.lpt > 3)) ||
        std::any_of(typed.begin(), typed.end(), [](char c) { return c < 0x20 || c >= 0x7F; }))
        kvtfuzz::Broken("two ways at once, or answers no one can give the dialog");
    return 0;
}
