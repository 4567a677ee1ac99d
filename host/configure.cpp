// kvtmon configure: the monitor's Configure Port entry, with dialog 550 in
// the terminal or answered from the command line, and what it stored.
#include <cstdio>
#include <string>
#include <vector>

#include "kvthost.h"
#include "kvtmon.h"
#include "ui_driver.h"

namespace kvtmon {

namespace {

const char kUsage[] =
    "usage: kvtmon configure PORT [--protocol auto|ipx|tcpip|netbeui] [--queue TEXT] [--notify on|off]\n"
    "  without options the dialog opens in the terminal; options answer it (what is not\n"
    "  given keeps what the dialog shows) and need no terminal; --legacy calls the\n"
    "  monitor's own ConfigurePort rather than its UI library\n";

// The port as the monitor lists it, in its own spelling; "" when it has none.
std::string ListedPort(const MONITOR *m, const std::string &name) {
    DWORD needed = 0, returned = 0;
    m->pfnEnumPorts(nullptr, 1, nullptr, 0, &needed, &returned);
    std::vector<BYTE> buffer(needed + 1);
    if (!m->pfnEnumPorts(nullptr, 1, buffer.data(), needed, &needed, &returned)) return "";
    auto *info = reinterpret_cast<PORT_INFO_1W *>(buffer.data());
    std::u16string wanted = kvthost::Widen(name);
    for (DWORD i = 0; i < returned; ++i)
        if (_wcsicmp(info[i].pName, wanted.c_str()) == 0) return kvthost::Narrow(info[i].pName);
    return "";
}

// What the registry holds now for the port and the monitor.
void PrintStored(const std::string &port) {
    std::u16string digitKey = MonitorKeyPath() + u"\\Ports\\" + kvthost::Widen(port.substr(0, port.size() - 3)) +
                              u"\\" + char16_t(port.back());
    BYTE protocol = 0, notify = 0;
    char16_t queue[65] = {};
    DWORD cb;
    HKEY key;
    if (RegOpenKeyW(HKEY_LOCAL_MACHINE, digitKey.c_str(), &key) == ERROR_SUCCESS) {
        cb = 1;
        RegQueryValueExW(key, u" ", nullptr, nullptr, &protocol, &cb);
        cb = sizeof queue - sizeof queue[0];
        RegQueryValueExW(key, u"QueueName", nullptr, nullptr, reinterpret_cast<BYTE *>(queue), &cb);
        RegCloseKey(key);
    }
    if (RegOpenKeyW(HKEY_LOCAL_MACHINE, MonitorKeyPath().c_str(), &key) == ERROR_SUCCESS) {
        cb = 1;
        RegQueryValueExW(key, u"IsNOTIFY", nullptr, nullptr, &notify, &cb);
        RegCloseKey(key);
    }
    std::printf("%s: transport %s (%d), queue name \"%s\", notice after each job %s\n", port.c_str(),
                ProtocolName(protocol), protocol, kvthost::Narrow(queue).c_str(), notify == 1 ? "on" : "off");
}

}  // namespace

int ConfigureCommand(int argc, char **argv) {
    TakeLegacyOption(&argc, argv);
    ConfigureAnswers answers;
    std::string error;
    for (int i = 0; i < argc; ++i)
        if (std::string(argv[i]) == "--help" || std::string(argv[i]) == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
    if (!ParseConfigureArgs(std::vector<std::string>(argv, argv + argc), &answers, &error)) {
        std::fprintf(stderr, "kvtmon configure: %s\n%s", error.c_str(), kUsage);
        return 2;
    }
    if (!answers.Given() && !HaveTerminal()) {
        std::fprintf(stderr,
                     "kvtmon configure: no terminal to show the dialog on and no answers given "
                     "(--protocol, --queue, --notify); nothing stored\n");
        return 2;
    }
    if (!CheckPrefix()) return 2;
    // The monitor's start-up box (with the log on) goes to the same driver.
    if (answers.Given()) UseAnswers(answers);
    else UseTerminal();
    const MONITOR *m = LoadMonitor(&error);
    std::string port = m != nullptr ? ListedPort(m, answers.port) : "";
    BOOL configured = FALSE;
    if (!port.empty()) {
        std::u16string name = kvthost::Widen(port);
        kvthost::RegistryBatch batch;  // the choices reach the hive together, or none
        const MONITORUI *ui;
        if (ChooseAdminEntries(m, &ui))
            configured = ui != nullptr ? ui->pfnConfigurePortUI(nullptr, GetDesktopWindow(), name.c_str())
                                       : m->pfnConfigurePort(nullptr, nullptr, name.data());
    }
    EndTerminal();
    kvthost::SetUiDriver(nullptr);
    if (m == nullptr) {
        std::fprintf(stderr, "kvtmon: %s\n", error.c_str());
        return 2;
    }
    if (port.empty()) {
        std::fprintf(stderr, "kvtmon: no port '%s'\n", answers.port.c_str());
        return 3;
    }
    if (!configured) {
        std::fprintf(stderr, "kvtmon: %s was not configured (with the log on, `kvtmon log` says why)\n", port.c_str());
        return 1;
    }
    PrintStored(port);
    return 0;
}

}  // namespace kvtmon
