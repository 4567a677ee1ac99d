// The kvtps program's pieces that are worth testing on their own: its command
// line, its configuration file, the line it prints per job and the spool it
// writes.  main.cpp only ties them to the Emulator and the signals.
#pragma once

#include <string>
#include <vector>

#include "kvtps.h"

namespace kvtps {

struct ProgramOptions {
    std::vector<ServerConfig> servers;
    std::string spoolDir;     // empty: no spool
    bool quiet = false;
    bool privateNet = false;  // enter a private network before starting
    bool help = false;
};

// args without the program name.  False with a message for any bad input.
bool ParseCommandLine(const std::vector<std::string> &args, ProgramOptions *options,
                      std::string *error);

// The configuration file: "[NAME]" starts a server's section, "key = value"
// lines set it, '#' starts a comment.  origin names the text in messages.
bool ParseConfig(const std::string &text, const std::string &origin,
                 std::vector<ServerConfig> *servers, std::string *error);
bool ReadConfigFile(const std::string &path, std::vector<ServerConfig> *servers,
                    std::string *error);

const char *UsageText();

// The print channel's settings over IPX and NetBIOS, with IPX's own
// (channel_options.cpp): their part of the usage text, whether a long option
// is one of them (and takes no value), and one setting applied; false with
// *known false when key is none of them.
const char *ChannelUsageText();
bool IsChannelOption(const std::string &name, bool *isFlag);
bool ApplyChannelSetting(ServerConfig *s, const std::string &key, const std::string &value, bool fromFlag,
                         bool *known, std::string *error);

// One line describing a stored job: server, connection, queue, control lines,
// the data file (or how many, and their names), data byte count, checksum, outcome.
std::string DescribeJob(const LprJob &job);

// A file name built from bytes a client sent: only letters, digits, '.', '_'
// and '-' survive, never empty, never starting with '.'.
std::string SafeFileName(const std::string &name);

// Writes a completed job's control file and (when stored) each data file into
// dir/SERVER/, under the names the client gave them, made safe; a name taken
// by an earlier job gets a ".2", ".3"... suffix.  *written lists the paths.
bool SpoolJob(const std::string &dir, const LprJob &job, std::vector<std::string> *written,
              std::string *error);

}  // namespace kvtps
