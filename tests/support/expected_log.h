// The monitor's log as a test expects it, whole, for the builds on both
// systems: the start-up over some ports, and a job over LPR on PS<n>-P1 fixed
// to TCP/IP with the queue name "lp", on the printer Office.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace kvtlog {

struct PortRecord {
    std::string name;
    std::string address;  // as the log shows it, "%08X" of the host-order value
    char lptn;
};

// The start-up with the log on, over these ports in registry order; the
// Windows folder as GetWindowsDirectoryW gives it.
inline std::string Startup(const std::string &windows, const std::vector<PortRecord> &ports) {
    const size_t kIniPortBytes = 224;  // the port record without its two strings, in a 64-bit build
    const std::string monitor = "PrintServer Network Port";
    std::string log = "OS type : Windows NT/2000\n\nWindows path : " + windows +
                      "\n\nLoad driver : KVT64.DLL\n success\n\nDLL version: 4.1.0.0\n\nVendorDesc : \n\n"
                      "DeviceDesc : PrintServer\n\nStarting DEBUG mode\n\n";
    for (const auto &port : ports) {
        const size_t bytes = kIniPortBytes + 2 * (port.name.size() + 1) + 2 * (monitor.size() + 1);
        log += "\n\nEntry CreateMonitorPortEntry\n\nPortName: " + port.name + "\n\nDeviceDesc: " + monitor +
               "\n\nIPAddress: " + port.address + " \t Lptn: " + port.lptn + "\n\nAllocSplMem success ( " +
               std::to_string(bytes) + " bytes)\n\nLeave CreateMonitorPortEntry\n\n";
    }
    return log + "Leave EnumPServerPorts\n\nWSAStartup ver 1.1 success\n\n\n\nEntry GetProtocol\n\n"
                 "Leave GetProtocol - protocol = 2\n\nSupportProtocol =\n [TCPIP]\n";
}

inline std::string JobIdLine(const char *format, unsigned jobId) {
    char line[128];
    std::snprintf(line, sizeof line, format, jobId);
    return line;
}

// From the open of the port to its queue name.
inline std::string LprJobStart(const std::string &port, unsigned jobId) {
    return "\n\nEntry LocalmonOpenPort\n\nOpen port name: " + port + "\n\nLeave LocalmonOpenPort - success\n\n"
           "\n\nEntry LocalmonStartDocPort\n\nPrinterName: Office\n\n" +
           JobIdLine("JobID: %08X \t Level: 00000001\n\n", jobId) +
           "\n\nEntry GetProtocol\n\nLeave GetProtocol - protocol = 2\n\nGet protocol: 02\n\n"
           "\n\nEntry GetPrintProtocol\n\nLeave GetPrintProtocol - protocol = 2\n\nStatus = 00000000\n\n"
           "PrintServer status change to PP_INSTARTDOC (status: 00000001)\n\n" +
           JobIdLine("JobID: %08x,reset Printer status to 0\n\n", jobId) +
           "Open printer success (status = 00000001)\n\n"
           "\n\nEntry GetPrintProtocol\n\nLeave GetPrintProtocol - protocol = 2\n\nGet Print Protocol: 2\n\n"
           "pIniPort->WorkProtocol: 0\n\nPrinting use TCPIP\n\n\n\nEntry LprOpenFile()\n\n\n\nEntry LprHandshake\n\n"
           "\n\nEntry GetPrintQueueName\n\ngetPrintQueueName:6c00700000000000\n\n"
           "getPrintQueueName_1:0000000000000000\n\ngetPrintQueueName_after pack:6c70000000000000\n\n"
           "Leave GetPrintQueueName - success\n\n";
}

// The rest of a job that goes out in one write, from the control file's lines
// (user guest, document report, the short host name) to the close of the port.
inline std::string LprJobRest(const std::string &host, bool notice) {
    return "Hguest\nJreport\nNreport\nH" + host +
           "\nLeave LprHandshake - success\n\nLeave LprOpenFile()\n\nLprOpenFile ok\n\n"
           "Leave LocalmonStartDocPort - success\n\nEntry LocalmonWritePort\n\nUsing TCPIP protocol\n\n"
           "LprWrite ok\n\nLeave LocalmonWritePort - (return = 1)\n\n\n\nEntry LocalmonEndDocPort (status = 80000000)\n\n"
           "Protocol = TCPIP , call LprCloseFile\n\nReset Status and PrinterStatus to 0\n\n" +
           (notice ? "Show notify to user\n\n" : "") +
           "Leave LocalmonEndDocPort - success\n\n\n\nLocalmonClosePort - close port\n\n";
}

// The rest of a job whose header the print server refuses, to the close of the port.
inline const char kLprRefused[] =
    "Leave LprHandshake - acknowledgement is not 0\n\nEntry LprOpenFile() error 6\n\nLprOpenFile fail\n\n"
    "Leave LocalmonStartDocPort - ERROR_IO_DEVICE (status: 00000000)\n\n\n\nLocalmonClosePort - close port\n\n";

}  // namespace kvtlog
