// kvtmon's two UI drivers for the platform's dialogs and boxes: the terminal,
// where a person answers, and answers given on the command line.
#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

namespace kvtmon {

// ---- answers (answers.cpp) ----------------------------------------------------------
// What `kvtmon configure PORT` is told to choose; what is not given keeps what
// the dialog showed.
struct ConfigureAnswers {
    std::string port;
    std::optional<int> protocol;  // 0 automatic, 1 IPX, 2 TCP/IP, 4 NetBIOS
    std::optional<std::string> queue;
    std::optional<bool> notify;
    bool Given() const { return protocol || queue || notify; }
};
// The arguments after "configure"; false with a message for nonsense.
bool ParseConfigureArgs(const std::vector<std::string> &args, ConfigureAnswers *answers, std::string *error);
// The radio button of dialog 550 for a protocol, and the protocol's name.
int ProtocolButton(int protocol);
const char *ProtocolName(int protocol);
// Answers dialog 550 as a person would: the radio button clicked, the queue
// box emptied and typed into, the check box set, OK pressed.  A box is
// written to stderr and answered OK.  A choice the dialog refuses (a
// disabled transport) ends kvtmon with status 3 before anything is stored.
void UseAnswers(const ConfigureAnswers &answers);

// ---- the terminal (terminal.cpp) ------------------------------------------------------
// True when a person sits at this terminal: standard input and output are one.
bool HaveTerminal();
// Draws each dialog and box in the terminal and takes the keys: Tab and
// Shift+Tab move, the arrows choose within a radio group or a list, Space
// presses or toggles, Enter presses the focused or the default button, and
// typing goes into an edit box.  Ctrl+C ends kvtmon (status 130) with nothing
// stored.  The terminal is taken when the first window shows and given back
// by EndTerminal, or on any exit.
void UseTerminal();
void EndTerminal();

}  // namespace kvtmon
