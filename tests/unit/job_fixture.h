// A port of the monitor, a printer with a job, and an emulated print server at
// 127.0.0.2, for the tests of the job flow and the LPR transport.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "kvthost.h"
#include "kvtps.h"
#include "monitor.h"
#include "monitor_host.h"

constexpr DWORD kServerAddress = 0x7F000002;  // 127.0.0.2, host order
constexpr DWORD kSentinel = 0xdeadbeef;
inline const char16_t kPrinter[] = u"Office";

class JobTest : public ::testing::Test {
protected:
    void TearDown() override {
        emulator.Stop();
        host.reset();
    }

    // The host, a port PS1-P<digit> (or -C) and the monitor started over them.
    PINIPORT StartPort(const kvttest::HostOptions &options = kvttest::HostOptions(), uint8_t protocol = 0,
                       const char16_t *queue = nullptr, char16_t digitKey = u'1') {
        host.reset();  // the old host's clean-up must not run under the new one
        host = std::make_unique<kvttest::TestHost>(options);
        kvttest::MakePortKeys(u"PS1", digitKey, kServerAddress, protocol, queue);
        InitializePrintMonitor(nullptr);
        EXPECT_NE(PortListHead, nullptr);
        kvthost::JobSpec job;
        job.printer = kPrinter;
        job.jobId = 7;
        job.document = u"report";
        job.user = u"guest";
        kvthost::AddJob(job);
        kvthost::ImpersonateUser(u"guest");
        kvthost::SetComputerName("pc1.lan");
        return PortListHead;
    }

    // PS1 at 127.0.0.2, on IPX and NetBIOS unless told otherwise.
    void StartServer(const kvtps::LprFaults &faults = kvtps::LprFaults(), bool channels = true) {
        kvtps::ServerConfig config;
        config.name = "PS1";
        config.address = "127.0.0.2";
        config.lpr = faults;
        config.ipx = channels;
        config.netbios.enabled = channels;
        std::string error;
        ASSERT_TRUE(emulator.Start({config}, &error)) << error;
    }

    // LocalmonStartDocPort as the spooler calls it, last error seeded.
    BOOL StartDoc(PINIPORT port, DWORD level = 1, LPBYTE docInfo = nullptr, const char16_t *printer = kPrinter) {
        SetLastError(kSentinel);
        return LocalmonStartDocPort(port, const_cast<LPWSTR>(printer), 7, level, docInfo);
    }

    // Writes the whole of data as the spooler does, calling again after a
    // short write.  False when a write fails.
    bool WriteAll(PINIPORT port, const std::string &data) {
        size_t done = 0;
        int calls = 0;
        while (done < data.size() && calls++ < 1000000) {
            DWORD written = kSentinel;
            if (!LocalmonWritePort(port, reinterpret_cast<LPBYTE>(const_cast<char *>(data.data() + done)),
                                   static_cast<DWORD>(data.size() - done), &written))
                return false;
            done += written;
        }
        return done == data.size();
    }

    std::unique_ptr<kvttest::TestHost> host;
    kvtps::Emulator emulator;
};
