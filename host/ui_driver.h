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

// What `kvtmon add` is told to do: the hand-over file it lays, and the answers
// to dialog 200 (and dialog 300, which its Create button opens).
struct AddAnswers {
    std::optional<std::string> server;                          // the list line of this print server
    std::optional<int> lpt;                                     // 1 to 3
    std::optional<std::string> queues[3];                       // the queue boxes of LPT1 to LPT3
    std::vector<std::pair<std::string, std::string>> creates;  // Create: NAME=ADDRESS, in order
    bool cancel = false;
    bool all = false;                 // lay the marker file: every port of every print server
    std::optional<std::string> list;  // lay this list file: its ports, silently
    bool Given() const {
        return server || lpt || queues[0] || queues[1] || queues[2] || !creates.empty() || cancel;
    }
};
// The arguments after "add"; false with a message for nonsense.
bool ParseAddArgs(const std::vector<std::string> &args, AddAnswers *answers, std::string *error);
// Answers the add's dialogs as a person would: dialog 300 for each Create
// (name and address typed, OK), then in dialog 200 the line of the print
// server selected, the LPT button clicked, the queue boxes emptied and typed
// into, OK or Cancel pressed; dialog 250 is read out and Continue pressed.  A
// box is written to stderr and answered OK.  What a dialog refuses (a line
// that isn't there, a disabled button, a dialog that stands after OK) ends
// kvtmon with status 3 before a port is made.
void UseAddAnswers(const AddAnswers &answers);

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
