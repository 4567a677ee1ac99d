// The answers driver: dialogs answered from the command line, as a person
// would answer them, for scripts and tests: dialog 550 of `kvtmon configure`,
// and dialogs 200, 300 and 250 of `kvtmon add`.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>

#include "kvthost.h"
#include "ui_driver.h"

namespace kvtmon {

namespace {

struct Protocol {
    const char *flag;
    int code;
    int button;
    const char *name;
};
const Protocol kProtocols[] = {
    {"auto", 0, 551, "automatic"},
    {"ipx", 1, 552, "IPX"},
    {"tcpip", 2, 553, "TCP/IP"},
    {"netbeui", 4, 554, "NetBEUI"},
};

constexpr int kQueueBox = 1000;
constexpr int kNotifyBox = 556;

// The control of the dialog's default button.
int DefaultButton(const kvthost::WindowView &view) {
    for (const kvthost::ControlView &c : view.controls)
        if (c.cls == u"BUTTON" && (c.style & BS_TYPEMASK) == BS_DEFPUSHBUTTON) return c.id;
    return 0;
}

const kvthost::ControlView *Control(const kvthost::WindowView &view, int id) {
    for (const kvthost::ControlView &c : view.controls)
        if (c.id == id) return &c;
    return nullptr;
}

[[noreturn]] void Refuse(const std::string &why) {
    std::fprintf(stderr, "kvtmon: %s; nothing stored\n", why.c_str());
    std::exit(3);
}

void Answer(const ConfigureAnswers &a, HWND window) {
    kvthost::WindowView view;
    if (!kvthost::ViewWindow(window, &view)) return;
    if (view.box) {
        std::string text = kvthost::Narrow(view.text);
        while (!text.empty() && text.back() == '\n') text.pop_back();
        std::fprintf(stderr, "[%s] %s\n", kvthost::Narrow(view.title).c_str(), text.c_str());
        kvthost::AnswerBox(window, IDOK);
        return;
    }
    if (view.templateId != 550) Refuse("dialog " + std::to_string(view.templateId) + " takes no answers");
    if (a.protocol && !kvthost::Click(window, ProtocolButton(*a.protocol)))
        Refuse(std::string("this host does not offer ") + ProtocolName(*a.protocol) + " (its button is disabled)");
    if (a.queue) {
        const kvthost::ControlView *box = Control(view, kQueueBox);
        for (size_t i = box != nullptr ? box->text.size() : 0; i > 0; --i) kvthost::TypeKey(window, kQueueBox, 8);
        for (unsigned char c : *a.queue) kvthost::TypeKey(window, kQueueBox, c);
        kvthost::ViewWindow(window, &view);
        box = Control(view, kQueueBox);
        if (box != nullptr && box->text.size() < a.queue->size())
            std::fprintf(stderr, "kvtmon: the queue box holds %zu characters: the name is cut to \"%s\"\n",
                         box->limit, kvthost::Narrow(box->text).c_str());
    }
    if (a.notify) {
        const kvthost::ControlView *check = Control(view, kNotifyBox);
        if (check != nullptr && (check->check == BST_CHECKED) != *a.notify) kvthost::Click(window, kNotifyBox);
    }
    kvthost::Click(window, DefaultButton(view));
}

// ---- kvtmon add ----------------------------------------------------------------------
constexpr int kCreate = 206, kCancel = 4, kPortOk = 5, kList = 203, kLpt1 = 207, kQueue1 = 1002;
constexpr int kRemoteName = 301, kRemoteAddress = 302, kContinue = 3;

[[noreturn]] void RefuseAdd(const std::string &why) {
    std::fprintf(stderr, "kvtmon: %s; no port made\n", why.c_str());
    std::exit(3);
}

bool Printable(const std::string &text) {
    for (unsigned char c : text)
        if (c < 0x20 || c >= 0x7F) return false;
    return true;
}

// Empties an edit box and types the text into it, key by key.
void TypeInto(HWND window, int id, const std::string &text) {
    kvthost::WindowView view;
    kvthost::ViewWindow(window, &view);
    const kvthost::ControlView *box = Control(view, id);
    if (box == nullptr || !box->enabled) RefuseAdd("box " + std::to_string(id) + " takes no text here");
    for (size_t i = box->text.size(); i > 0; --i) kvthost::TypeKey(window, id, 8);
    for (unsigned char c : text) kvthost::TypeKey(window, id, c);
}

// One person at the add's dialogs: each dialog is answered once, and one that
// is shown again after its answer (a box told why) has refused it.
struct AddPerson {
    AddAnswers answers;
    std::set<HWND> answered;
    size_t nextCreate = 0;

    void Box(HWND window, const kvthost::WindowView &view) {
        std::string text = kvthost::Narrow(view.text);
        while (!text.empty() && text.back() == '\n') text.pop_back();
        std::fprintf(stderr, "[%s] %s\n", kvthost::Narrow(view.title).c_str(), text.c_str());
        kvthost::AnswerBox(window, IDOK);
    }

    void PortName(HWND window, kvthost::WindowView view) {
        for (; nextCreate < answers.creates.size(); ++nextCreate)
            if (!kvthost::Click(window, kCreate)) RefuseAdd("Create is disabled: this host has no TCP/IP");
        kvthost::ViewWindow(window, &view);  // with the lines Create added
        if (answers.cancel) {
            kvthost::Click(window, kCancel);
            return;
        }
        if (answers.server) {
            const kvthost::ControlView *list = Control(view, kList);
            std::string lines;
            for (size_t i = 0; list != nullptr && i < list->lines.size(); ++i) {
                std::string line = kvthost::Narrow(list->lines[i]);
                if (line.rfind(*answers.server + " ", 0) == 0 || line == *answers.server) {
                    kvthost::SelectLine(window, kList, static_cast<int>(i));
                    lines.clear();
                    break;
                }
                lines += "\n  " + line;
            }
            if (list == nullptr || list->lines.empty()) RefuseAdd("the search found no print server");
            if (!lines.empty()) RefuseAdd("no print server " + *answers.server + " in the list:" + lines);
        }
        if (answers.lpt && !kvthost::Click(window, kLpt1 + *answers.lpt - 1))
            RefuseAdd("LPT" + std::to_string(*answers.lpt) + " is disabled for this print server");
        for (int k = 0; k < 3; ++k)
            if (answers.queues[k]) TypeInto(window, kQueue1 + k, *answers.queues[k]);
        kvthost::Click(window, kPortOk);
    }

    void RemoteServer(HWND window) {
        if (nextCreate >= answers.creates.size()) RefuseAdd("dialog 300 opened with nothing to create");
        const auto &[name, address] = answers.creates[nextCreate];
        TypeInto(window, kRemoteName, name);
        TypeInto(window, kRemoteAddress, address);
        kvthost::Click(window, kPortOk);
    }

    void AddAll(HWND window, const kvthost::WindowView &view) {
        if (const kvthost::ControlView *list = Control(view, 253))
            for (const std::u16string &line : list->lines)
                std::fprintf(stderr, "[%s] %s\n", kvthost::Narrow(view.title).c_str(), kvthost::Narrow(line).c_str());
        kvthost::Click(window, kContinue);
    }

    void Answer(HWND window) {
        kvthost::WindowView view;
        if (!kvthost::ViewWindow(window, &view)) return;
        if (view.box) return Box(window, view);
        if (!answered.insert(window).second)
            RefuseAdd("dialog " + std::to_string(view.templateId) + " did not take the answers");
        switch (view.templateId) {
        case 200: return PortName(window, view);
        case 300: return RemoteServer(window);
        case 250: return AddAll(window, view);
        default: RefuseAdd("dialog " + std::to_string(view.templateId) + " takes no answers");
        }
    }
};

}  // namespace

bool ParseAddArgs(const std::vector<std::string> &args, AddAnswers *a, std::string *error) {
    *a = AddAnswers();
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &arg = args[i];
        if (arg == "--all" || arg == "--cancel") {
            (arg == "--all" ? a->all : a->cancel) = true;
            continue;
        }
        if (arg != "--server" && arg != "--lpt" && arg != "--queue" && arg != "--create" && arg != "--list")
            return *error = "unknown argument '" + arg + "'", false;
        if (i + 1 == args.size()) return *error = arg + " wants a value", false;
        const std::string &value = args[++i];
        size_t eq = value.find('=');
        if (arg == "--server") {
            if (value.empty() || !Printable(value)) return *error = "a print server's name is printable ASCII", false;
            a->server = value;
        } else if (arg == "--lpt") {
            if (value != "1" && value != "2" && value != "3") return *error = "--lpt is 1, 2 or 3", false;
            a->lpt = value[0] - '0';
        } else if (arg == "--list") {
            a->list = value;
        } else if (arg == "--queue") {
            if (eq != 1 || value[0] < '1' || value[0] > '3' || !Printable(value.substr(2)))
                return *error = "--queue is K=TEXT: K is 1, 2 or 3, TEXT printable ASCII", false;
            a->queues[value[0] - '1'] = value.substr(2);
        } else {
            std::string name = value.substr(0, eq);
            if (eq == std::string::npos || name.empty() || name.size() > 47 || !Printable(value))
                return *error = "--create is NAME=ADDRESS: a name of 1 to 47 printable characters", false;
            a->creates.emplace_back(name, value.substr(eq + 1));
        }
    }
    if (a->all + a->list.has_value() + a->Given() > 1)
        return *error = "--all, --list and the answers to dialog 200 are three ways: one at a time", false;
    if (a->cancel && (a->server || a->lpt || a->queues[0] || a->queues[1] || a->queues[2]))
        return *error = "--cancel takes no choice of port", false;
    return true;
}

void UseAddAnswers(const AddAnswers &answers) {
    auto person = std::make_shared<AddPerson>();
    person->answers = answers;
    kvthost::SetUiDriver([person](HWND window, int) { person->Answer(window); });
}

int ProtocolButton(int protocol) {
    for (const Protocol &p : kProtocols)
        if (p.code == protocol) return p.button;
    return 0;
}

const char *ProtocolName(int protocol) {
    for (const Protocol &p : kProtocols)
        if (p.code == protocol) return p.name;
    return "unknown";
}

bool ParseConfigureArgs(const std::vector<std::string> &args, ConfigureAnswers *a, std::string *error) {
    *a = ConfigureAnswers();
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &arg = args[i];
        bool flag = arg == "--protocol" || arg == "--queue" || arg == "--notify";
        if (!flag) {
            if (arg.size() > 1 && arg[0] == '-') return *error = "unknown option '" + arg + "'", false;
            if (!a->port.empty()) return *error = "one port at a time ('" + a->port + "', '" + arg + "')", false;
            a->port = arg;
            continue;
        }
        if (i + 1 == args.size()) return *error = arg + " wants a value", false;
        const std::string &value = args[++i];
        if (arg == "--queue") {
            for (unsigned char c : value)
                if (c < 0x20 || c >= 0x7F) return *error = "a queue name is printable ASCII", false;
            a->queue = value;
        } else if (arg == "--notify") {
            if (value != "on" && value != "off") return *error = "--notify is on or off, not '" + value + "'", false;
            a->notify = value == "on";
        } else {
            int code = -1;
            for (const Protocol &p : kProtocols)
                if (value == p.flag) code = p.code;
            if (code < 0) return *error = "--protocol is auto, ipx, tcpip or netbeui, not '" + value + "'", false;
            a->protocol = code;
        }
    }
    if (a->port.empty()) return *error = "which port?", false;
    return true;
}

void UseAnswers(const ConfigureAnswers &answers) {
    kvthost::SetUiDriver([answers](HWND window, int) { Answer(answers, window); });
}

}  // namespace kvtmon
