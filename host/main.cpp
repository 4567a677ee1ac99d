// kvtmon: the spooler host for Linux.
#include <cstdio>
#include <cstring>
#include <string>

#include "kvtmon.h"
#include "listfile.h"

namespace {

void Usage(FILE *out) {
    std::fprintf(out,
                 "usage: kvtmon COMMAND [ARGS]\n"
                 "  init [--transports LIST] [--debug] [--notify]\n"
                 "                                 make the prefix: folders, network components (tcpip,\n"
                 "                                 ipx, netbios; default all three), monitor key\n"
                 "  ports [--json]                 list the ports as the spooler sees them\n"
                 "  configure PORT [answers]       set a port's transport, queue name and the notice\n"
                 "                                 after each job (kvtmon configure --help)\n"
                 "  add [answers] | --all | --list FILE\n"
                 "                                 add ports as the spooler does: one by the search's\n"
                 "                                 dialog, every one found, or a list file's (kvtmon add --help)\n"
                 "  listfile make DESCRIPTION FILE | show FILE\n"
                 "                                 write a list file from a description, or show one\n"
                 "  delete PORT                    delete a port from the list and the registry\n"
                 "  (add, configure and delete go through the monitor's UI library, as Windows'\n"
                 "   spooler does; --legacy calls the monitor's own entries)\n"
                 "  log [--follow]                 show the diagnostic log\n"
                 "  print PORT FILE... [options]   print files through the monitor (kvtmon print --help)\n"
                 "  discover [--transport tcpip|ipx|netbios] [--json] [--debug]\n"
                 "                                 search the network for print servers\n"
                 "  demo                           run the monitor against emulated print servers\n"
                 "                                 on a private network\n"
                 "environment: KVT_PREFIX (default ~/.kvt), KVT64_SO (the monitor library)\n");
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        Usage(stderr);
        return 2;
    }
    std::string command = argv[1];
    if (command == "print") return kvtmon::PrintCommand(argc - 2, argv + 2);
    if (command == "init") return kvtmon::InitCommand(argc - 2, argv + 2);
    if (command == "ports") return kvtmon::PortsCommand(argc - 2, argv + 2);
    if (command == "configure") return kvtmon::ConfigureCommand(argc - 2, argv + 2);
    if (command == "add") return kvtmon::AddCommand(argc - 2, argv + 2);
    if (command == "listfile") return kvtmon::ListfileCommand(argc - 2, argv + 2);
    if (command == "delete") return kvtmon::DeleteCommand(argc - 2, argv + 2);
    if (command == "log") return kvtmon::LogCommand(argc - 2, argv + 2);
    if (command == "demo") return kvtmon::DemoCommand(argc - 2, argv + 2);
    if (command == "discover") return kvtmon::DiscoverCommand(argc - 2, argv + 2);
    if (command == "help" || command == "--help" || command == "-h") {
        Usage(stdout);
        return 0;
    }
    std::fprintf(stderr, "kvtmon: unknown command '%s'\n", command.c_str());
    Usage(stderr);
    return 2;
}
