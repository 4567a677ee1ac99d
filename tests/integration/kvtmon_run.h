// Runs kvtmon as a user would, with a prefix of the test's own and the
// monitor's waits shrunk, and keeps what it printed; the fixture of the tests
// that run it against emulated print servers.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "emulated.h"
#include "run_program.h"

namespace kvttest {

using KvtmonRun = ProgramRun;

inline std::string KvtmonPath() {
    const char *kvtmon = std::getenv("KVTMON");
    return kvtmon != nullptr ? kvtmon : KVT_BIN_DIR "/kvtmon";
}

// Whether text holds part; a failure shows both.
inline ::testing::AssertionResult Holds(const std::string &text, const std::string &part) {
    if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "\"" << part << "\" is not in:\n" << text;
}

// A folder of the test's own (the prefix in it), kvtmon run there, and the
// emulated print servers.
class KvtmonTest : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/kvt-integration-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
    }
    void TearDown() override {
        emulator_.Stop();
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    // kvtmon ARGS with KVT_PREFIX=<dir_>/prefix and KVT_TIMESCALE=<timeScale_>,
    // and the environment's changes given.
    KvtmonRun Kvtmon(std::vector<std::string> args, int killAfterMs = -1, std::vector<std::string> env = {}) {
        args.insert(args.begin(), KvtmonPath());
        env.push_back("KVT_PREFIX=" + dir_ + "/prefix");
        env.push_back(std::string("KVT_TIMESCALE=") + timeScale_);
        return RunProgram(std::move(args), env, killAfterMs);
    }
    void StartServers(const std::vector<kvtps::ServerConfig> &servers) {
        std::string error;
        ASSERT_TRUE(emulator_.Start(servers, &error)) << error;
    }

    const char *timeScale_ = "0.01";
    std::string dir_;
    kvtps::Emulator emulator_;
};

}  // namespace kvttest
