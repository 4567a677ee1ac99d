// The registry hive as the platform reads it from system.reg: any bytes are
// either refused with the line and the fault, or read into a tree whose text,
// written as the platform writes the hive, reads back into the same text.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "registry_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    kvtreg::Key root;
    std::string error;
    if (!kvtreg::ParseHive(std::string(reinterpret_cast<const char *>(data), size), &root, &error)) {
        if (error.empty()) std::abort();  // a refusal says why
        return 0;
    }
    const std::string written = kvtreg::HiveText(root);
    kvtreg::Key again;
    if (!kvtreg::ParseHive(written, &again, &error)) std::abort();  // what is written is read
    if (kvtreg::HiveText(again) != written) std::abort();         // and is the same tree
    return 0;
}
