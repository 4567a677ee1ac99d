// kvtmon discover: the monitor's TCP/IP, IPX or NetBIOS search on the network, and
// what it found.  The spooler's entry table offers no search, so this command loads
// libkvtsearch.so (the monitor built with its search exported) instead of
// libkvt64.so: the one place where kvtmon reaches past the entry table.
#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "kvthost.h"
#include "kvtmon.h"
#include "search/kvtsearch.h"

extern char **environ;

namespace kvtmon {

namespace {

constexpr int kMaxFound = 100;          // the monitor's table has no more records
constexpr int kProgressFrameMs = 100;

std::string ProgramPath() {
    char path[4096];
    ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) return "kvtmon";
    path[n] = 0;
    return path;
}

std::string SearchModulePath() {
    const char *env = std::getenv("KVT_SEARCH_SO");
    if (env != nullptr && *env != 0) return env;
    std::string self = ProgramPath();
    size_t slash = self.rfind('/');
    return (slash == std::string::npos ? std::string(".") : self.substr(0, slash)) + "/libkvtsearch.so";
}

std::string Dotted(uint32_t networkOrder) {
    const auto *b = reinterpret_cast<const uint8_t *>(&networkOrder);
    return std::to_string(b[0]) + "." + std::to_string(b[1]) + "." + std::to_string(b[2]) + "." +
           std::to_string(b[3]);
}

// ---- reading the JSON that `discover --json` writes -------------------------------------
// Just enough JSON for that output: objects, arrays, strings, numbers, true,
// false and null.
struct JsonReader {
    explicit JsonReader(const std::string &t) : text(t) {}
    const std::string &text;
    size_t at = 0;
    std::string error;

    void Space() {
        while (at < text.size() && std::strchr(" \t\r\n", text[at]) != nullptr) ++at;
    }
    bool Take(char c) {
        Space();
        if (at < text.size() && text[at] == c) {
            ++at;
            return true;
        }
        return false;
    }
    bool Fail(const std::string &what) {
        if (error.empty()) error = what + " at byte " + std::to_string(at);
        return false;
    }
    bool String(std::string *out) {
        if (!Take('"')) return Fail("a string expected");
        out->clear();
        while (at < text.size() && text[at] != '"') {
            char c = text[at++];
            if (c != '\\') {
                out->push_back(c);
                continue;
            }
            if (at >= text.size()) break;
            c = text[at++];
            if (c == 'u') {
                if (at + 4 > text.size()) return Fail("a short escape");
                unsigned long code = std::strtoul(text.substr(at, 4).c_str(), nullptr, 16);
                at += 4;
                if (code > 0xFF) return Fail("a character beyond one byte");
                out->push_back(static_cast<char>(code));
            } else {
                out->push_back(c == 'n' ? '\n' : c == 't' ? '\t' : c);
            }
        }
        if (at >= text.size()) return Fail("an unterminated string");
        ++at;
        return true;
    }
    bool Number(long *out) {
        Space();
        char *end = nullptr;
        *out = std::strtol(text.c_str() + at, &end, 10);
        if (end == text.c_str() + at) return Fail("a number expected");
        at = static_cast<size_t>(end - text.c_str());
        return true;
    }
    bool Word(const char *word) {
        Space();
        if (text.compare(at, std::strlen(word), word) != 0) return false;
        at += std::strlen(word);
        return true;
    }
    bool Skip() {  // any value
        Space();
        std::string s;
        long n;
        if (at < text.size() && text[at] == '"') return String(&s);
        if (Take('[')) {
            if (Take(']')) return true;
            do
                if (!Skip()) return false;
            while (Take(','));
            return Take(']') || Fail("']' expected");
        }
        if (Take('{')) {
            if (Take('}')) return true;
            do
                if (!String(&s) || !Take(':') || !Skip()) return Fail("a member expected");
            while (Take(','));
            return Take('}') || Fail("'}' expected");
        }
        return Word("true") || Word("false") || Word("null") || Number(&n);
    }
    bool Server(FoundServer *s) {
        if (!Take('{')) return Fail("'{' expected");
        if (Take('}')) return true;
        do {
            std::string key, value;
            long n = 0;
            if (!String(&key) || !Take(':')) return Fail("a member expected");
            bool ok = true;
            if (key == "name") {
                ok = String(&s->name);
            } else if (key == "ipAddress" || key == "node") {
                ok = String(&value);
                unsigned b[6] = {};
                if (ok && key == "ipAddress" && std::sscanf(value.c_str(), "%u.%u.%u.%u", &b[0], &b[1], &b[2], &b[3]) == 4) {
                    uint8_t bytes[4] = {uint8_t(b[0]), uint8_t(b[1]), uint8_t(b[2]), uint8_t(b[3])};
                    std::memcpy(&s->ipAddress, bytes, 4);
                } else if (ok && key == "node" &&
                           std::sscanf(value.c_str(), "%2x-%2x-%2x-%2x-%2x-%2x", &b[0], &b[1], &b[2], &b[3], &b[4],
                                       &b[5]) == 6) {
                    for (int i = 0; i < 6; ++i) s->node[i] = static_cast<uint8_t>(b[i]);
                }
            } else if (key == "model" || key == "type" || key == "autoProtocol" || key == "flags") {
                ok = Number(&n);
                uint8_t v = static_cast<uint8_t>(n);
                (key == "model" ? s->model : key == "type" ? s->type : key == "flags" ? s->flags : s->autoProtocol) = v;
            } else if (key == "queues") {
                ok = Take('[');
                for (int q = 0; ok && q < 3; ++q) ok = (q == 0 || Take(',')) && String(&s->queues[q]);
                ok = ok && Take(']');
            } else {
                ok = Skip();
            }
            if (!ok) return Fail("a bad value of " + key);
        } while (Take(','));
        return Take('}') || Fail("'}' expected");
    }
};

}  // namespace

std::string AddressShown(const FoundServer &s) {
    if (!(s.flags & 0x04)) return "TCP/IP Disabled";
    if (s.ipAddress == 0) return "Automatic IP";
    return Dotted(s.ipAddress);
}

int SearchNetwork(std::vector<FoundServer> *found, const std::string &transport, bool progress, std::string *error) {
    const std::string path = SearchModulePath();
    void *module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
        *error = std::string("cannot load the search: ") + dlerror();
        return 2;
    }
    using InitFn = LPMONITOREX (*)(LPWSTR);
    auto init = reinterpret_cast<InitFn>(dlsym(module, "InitializePrintMonitor"));
    const char *function = transport == "ipx"       ? KVT_SEARCH_IPX_FUNCTION
                           : transport == "netbios" ? KVT_SEARCH_NETBIOS_FUNCTION
                                                    : KVT_SEARCH_FUNCTION;
    auto search = reinterpret_cast<KvtSearchTcpipFn>(dlsym(module, function));
    if (init == nullptr || search == nullptr) {
        *error = path + " is no search module";
        return 2;
    }
    std::u16string root = u"System\\CurrentControlSet\\Control\\Print\\Monitors";
    init(root.data());

    std::vector<KvtFoundServer> records(kMaxFound);
    std::atomic<int> result{0};
    std::atomic<bool> done{false};
    std::thread worker([&] {
        result = search(records.data(), kMaxFound);
        done = true;
    });
    const bool draw = progress && isatty(STDERR_FILENO) != 0;
    const auto start = std::chrono::steady_clock::now();
    static const char kSpinner[] = "|/-\\";
    for (int frame = 0; !done; ++frame) {
        if (draw) {
            double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            std::fprintf(stderr, "\rsearching the network for print servers %c %.1f s ", kSpinner[frame % 4], seconds);
            std::fflush(stderr);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(kProgressFrameMs));
    }
    worker.join();
    if (draw) std::fprintf(stderr, "\r%60s\r", "");
    if (result < 0) {
        *error = "the search could not set up its socket";
        return 2;
    }
    found->clear();
    for (int i = 0; i < result && i < kMaxFound; ++i) {
        const KvtFoundServer &r = records[static_cast<size_t>(i)];
        FoundServer s;
        s.name = kvthost::Narrow(r.name);
        s.ipAddress = r.ipAddress;
        s.flags = r.flags;
        s.model = r.model;
        std::memcpy(s.node, r.node, sizeof s.node);
        s.autoProtocol = r.autoProtocol;
        s.type = r.type;
        for (int q = 0; q < 3; ++q) s.queues[q] = r.queues[q];
        found->push_back(s);
    }
    return 0;
}

std::string DiscoverJson(const std::vector<FoundServer> &found) {
    std::string out = "[";
    for (size_t i = 0; i < found.size(); ++i) {
        const FoundServer &s = found[i];
        out += i == 0 ? "\n" : ",\n";
        out += "  {\"name\": " + JsonText(s.name) + ", \"address\": " + JsonText(AddressShown(s)) +
               ", \"ipAddress\": " + JsonText(Dotted(s.ipAddress)) + ", \"node\": " + JsonText(NodeText(s.node)) +
               ", \"model\": " + std::to_string(s.model) + ", \"ports\": " + std::to_string(s.model & 3) +
               ", \"flags\": " + std::to_string(s.flags) + ", \"queues\": [" + JsonText(s.queues[0]) + ", " +
               JsonText(s.queues[1]) + ", " + JsonText(s.queues[2]) + "], \"type\": " + std::to_string(s.type) +
               ", \"autoProtocol\": " + std::to_string(s.autoProtocol) + "}";
    }
    return out + (found.empty() ? "]\n" : "\n]\n");
}

std::string DiscoverTable(const std::vector<FoundServer> &found) {
    std::string out;
    char line[512];
    std::snprintf(line, sizeof line, "%-20s %-16s %-17s %-5s %-5s %-4s %-4s %s\n", "NAME", "ADDRESS", "NODE", "MODEL",
                  "PORTS", "TYPE", "AUTO", "QUEUES");
    out += line;
    for (const FoundServer &s : found) {
        char model[8];
        std::snprintf(model, sizeof model, "0x%02X", s.model);
        std::string queues;
        for (int q = 0; q < 3; ++q) queues += (q ? ", " : "") + (s.queues[q].empty() ? "-" : s.queues[q]);
        std::snprintf(line, sizeof line, "%-20s %-16s %-17s %-5s %-5d %-4d %-4d %s\n", s.name.c_str(),
                      AddressShown(s).c_str(), NodeText(s.node).c_str(), model, s.model & 3, s.type,
                      s.autoProtocol, queues.c_str());
        out += line;
    }
    return out;
}

bool ParseDiscoverJson(const std::string &text, std::vector<FoundServer> *found, std::string *error) {
    JsonReader r(text);
    found->clear();
    bool ok = r.Take('[');
    if (ok && !r.Take(']')) {
        do {
            FoundServer s;
            ok = r.Server(&s);
            if (ok) found->push_back(s);
        } while (ok && r.Take(','));
        ok = ok && r.Take(']');
    }
    r.Space();
    if (ok && r.at != text.size()) ok = r.Fail("text after the list");
    if (!ok) *error = r.error.empty() ? "not a list of print servers" : r.error;
    return ok;
}

bool DiscoverInChild(std::vector<FoundServer> *found, std::string *error) {
    return SearchInChild("tcpip", found, error);
}

bool SearchInChild(const std::string &transport, std::vector<FoundServer> *found, std::string *error) {
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) {
        *error = std::string("pipe: ") + std::strerror(errno);
        return false;
    }
    std::string self = ProgramPath();
    std::vector<std::string> args = {self, "discover", "--json", "--transport", transport};
    std::vector<char *> argv;
    for (auto &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    // The child sees this process's prefix, which may have been set in code.
    std::vector<std::string> env = {"KVT_PREFIX=" + kvthost::Prefix()};
    for (char **e = environ; *e != nullptr; ++e)
        if (std::strncmp(*e, "KVT_PREFIX=", 11) != 0) env.push_back(*e);
    std::vector<char *> envp;
    for (auto &e : env) envp.push_back(e.data());
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    pid_t pid = 0;
    int spawned = posix_spawn(&pid, self.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(pipeFds[1]);
    if (spawned != 0) {
        close(pipeFds[0]);
        *error = std::string("cannot run kvtmon discover: ") + std::strerror(spawned);
        return false;
    }
    std::string output;
    char chunk[4096];
    for (ssize_t n; (n = read(pipeFds[0], chunk, sizeof chunk)) != 0;) {
        if (n < 0) {
            if (errno == EINTR) continue;
            break;
        }
        output.append(chunk, static_cast<size_t>(n));
    }
    close(pipeFds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        *error = "kvtmon discover failed";
        return false;
    }
    return ParseDiscoverJson(output, found, error);
}

int DiscoverCommand(int argc, char **argv) {
    bool json = false, debug = false;
    std::string transport = "tcpip";
    for (int i = 0; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--json") {
            json = true;
        } else if (a == "--debug") {
            debug = true;
        } else if (a == "--transport" && i + 1 < argc &&
                   (std::strcmp(argv[i + 1], "tcpip") == 0 || std::strcmp(argv[i + 1], "ipx") == 0 ||
                    std::strcmp(argv[i + 1], "netbios") == 0)) {
            transport = argv[++i];
        } else {
            std::fprintf(stderr, "usage: kvtmon discover [--transport tcpip|ipx|netbios] [--json] [--debug]\n");
            return 2;
        }
    }
    UseTerminalForBoxes(true);
    if (!CheckPrefix()) return 2;
    if (debug) SetMonitorFlag(u"IsDEBUG", true);
    std::vector<FoundServer> found;
    std::string error;
    int status = SearchNetwork(&found, transport, true, &error);
    if (status != 0) {
        std::fprintf(stderr, "kvtmon: %s\n", error.c_str());
        return status;
    }
    if (json) {
        std::fputs(DiscoverJson(found).c_str(), stdout);
    } else if (found.empty()) {
        std::printf("no print server answered\n");
    } else {
        std::fputs(DiscoverTable(found).c_str(), stdout);
    }
    return 0;
}

}  // namespace kvtmon
