// The answers driver: dialog 550 answered from the command line, as a person
// would answer it, for scripts and tests.
#include <cstdio>
#include <cstdlib>
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

}  // namespace

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
