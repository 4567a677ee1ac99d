// kvtmon add: the monitor's AddPort entry as the spooler calls it, with the
// hand-over files that lie in the prefix, and dialog 200 (or 250) in the
// terminal or answered from the command line.
#include <cstdio>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "kvthost.h"
#include "kvtmon.h"
#include "ui_driver.h"

namespace kvtmon {

namespace {

const char kUsage[] =
    "usage: kvtmon add [--server NAME] [--lpt 1|2|3] [--queue K=TEXT]... [--create NAME=ADDRESS]... [--cancel]\n"
    "       kvtmon add --all          every printer port of every print server found (dialog 250)\n"
    "       kvtmon add --list FILE    the ports of a list file (kvtmon listfile), silently\n"
    "  without options the search's dialog opens in the terminal; options answer it and\n"
    "  need no terminal: --server picks that print server's line, --lpt its printer port,\n"
    "  --queue types queue name K, --create adds a print server through dialog 300 first\n"
    "  --legacy calls the monitor's own AddPort rather than its UI library\n";

// The hand-over files, where the monitor looks for them.
std::string HandOverPath(const char16_t *name) {
    return kvthost::MapPath(std::u16string(u"C:\\Windows\\SysWOW64\\") + name);
}

bool Lies(const std::string &path) { return std::ifstream(path).good(); }

std::set<std::string> PortNames(const MONITOR *m) {
    DWORD needed = 0, returned = 0;
    m->pfnEnumPorts(nullptr, 1, nullptr, 0, &needed, &returned);
    std::vector<BYTE> buffer(needed + 1);
    std::set<std::string> names;
    if (!m->pfnEnumPorts(nullptr, 1, buffer.data(), needed, &needed, &returned)) return names;
    auto *info = reinterpret_cast<PORT_INFO_1W *>(buffer.data());
    for (DWORD i = 0; i < returned; ++i) names.insert(kvthost::Narrow(info[i].pName));
    return names;
}

// Lays the list file or the marker file, into *pLaid when none lay there
// before; false with a message.
bool LayHandOver(const AddAnswers &answers, std::string *pLaid) {
    std::string bytes;
    if (answers.list) {
        std::ifstream in(*answers.list, std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "kvtmon add: cannot read %s\n", answers.list->c_str());
            return false;
        }
        bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    std::string path = HandOverPath(answers.list ? u"KVTLIST.BIN" : u"KVTJLPR");
    bool lay = !Lies(path);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out.write(bytes.data(), static_cast<std::streamsize>(bytes.size())) || !out.flush()) {
        std::fprintf(stderr, "kvtmon add: cannot write %s\n", path.c_str());
        return false;
    }
    if (lay) *pLaid = path;
    return true;
}

// A hand-over file that kvtmon laid and the add did not take (no transport
// offered, the NetBIOS start-up failed, the monitor not loaded, or a list
// file that lay there first) would make the next add take its way without
// being asked: it goes, and kvtmon says so.
void TakeBackHandOver(const std::string &laid) {
    if (laid.empty() || !Lies(laid)) return;
    std::string name = laid.substr(laid.find_last_of('/') + 1);
    if (std::remove(laid.c_str()) == 0)
        std::fprintf(stderr, "kvtmon add: the monitor did not take %s; removed it, so the next add does not take it\n",
                     name.c_str());
    else
        std::fprintf(stderr, "kvtmon add: the monitor did not take %s, and it cannot be removed: %s\n", name.c_str(),
                     laid.c_str());
}

}  // namespace

int AddCommand(int argc, char **argv) {
    TakeLegacyOption(&argc, argv);
    AddAnswers answers;
    std::string error;
    for (int i = 0; i < argc; ++i)
        if (std::string(argv[i]) == "--help" || std::string(argv[i]) == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
    if (!ParseAddArgs(std::vector<std::string>(argv, argv + argc), &answers, &error)) {
        std::fprintf(stderr, "kvtmon add: %s\n%s", error.c_str(), kUsage);
        return 2;
    }
    if (!CheckPrefix()) return 2;
    bool handOver = answers.all || answers.list || Lies(HandOverPath(u"KVTLIST.BIN")) ||
                    Lies(HandOverPath(u"KVTJLPR"));
    bool terminal = !answers.Given() && HaveTerminal();
    if (!answers.Given() && !terminal && !handOver) {
        std::fprintf(stderr,
                     "kvtmon add: no terminal to show the dialog on and no answers given "
                     "(--server, --lpt, --queue, --create, --cancel, --all, --list); no port made\n");
        return 2;
    }
    std::string laid;
    if ((answers.all || answers.list) && !LayHandOver(answers, &laid)) return 2;
    // The monitor's start-up box (with the log on) goes to the same driver.
    if (terminal) UseTerminal();
    else UseAddAnswers(answers);
    const MONITOR *m = LoadMonitor(&error);
    std::set<std::string> before, after;
    BOOL result = FALSE;
    DWORD lastError = 0;
    if (m != nullptr) {
        before = PortNames(m);
        std::u16string monitorName = MonitorNameFromProfile();
        // As the client side of the spooler: the UI library, when the
        // monitor names one, with the administrator's desktop as its owner.
        const MONITORUI *ui;
        if (!ChooseAdminEntries(m, &ui)) {
            EndTerminal();
            kvthost::SetUiDriver(nullptr);
            TakeBackHandOver(laid);
            return 2;
        }
        {
            kvthost::RegistryBatch batch;  // the ports made reach the hive together, or none
            SetLastError(0);
            if (ui != nullptr) {
                PWSTR made = nullptr;
                result = ui->pfnAddPortUI(nullptr, GetDesktopWindow(), monitorName.c_str(), &made);
                lastError = GetLastError();
                LocalFree(made);
                // A person's Cancel (or a port that exists) is no refusal.
                if (!result && lastError == ERROR_CANCELLED) result = TRUE;
            } else {
                result = m->pfnAddPort(nullptr, nullptr, monitorName.data());
                lastError = GetLastError();
            }
        }
        after = PortNames(m);
    }
    EndTerminal();
    kvthost::SetUiDriver(nullptr);
    TakeBackHandOver(laid);
    if (m == nullptr) {
        std::fprintf(stderr, "kvtmon: %s\n", error.c_str());
        return 2;
    }
    size_t made = 0;
    for (const std::string &name : after)
        if (before.count(name) == 0) {
            std::printf("added %s\n", name.c_str());
            ++made;
        }
    if (made == 0) std::printf("no port added\n");
    if (!result) {
        std::fprintf(stderr, "kvtmon add: the monitor refused the add: error %s\n",
                     lastError == 0 ? "0 (none set)" : DescribeError(lastError).c_str());
        return 1;
    }
    if (made == 0 && lastError != 0)
        std::printf("the add ended as the spooler sees success, last error %s\n", DescribeError(lastError).c_str());
    return 0;
}

}  // namespace kvtmon
