// Runs kvtmon (or any program) as a user would, with a prefix of the test's
// own and the monitor's waits shrunk, and keeps what it printed; the fixture
// of the tests that run it against emulated print servers.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "emulated.h"

extern char **environ;

namespace kvttest {

struct ProgramRun {
    int status = -1;  // the exit status, or 128 + the signal that ended it
    std::string out;
    std::string err;
};
using KvtmonRun = ProgramRun;

inline std::string Slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

inline std::string KvtmonPath() {
    const char *kvtmon = std::getenv("KVTMON");
    return kvtmon != nullptr ? kvtmon : KVT_BIN_DIR "/kvtmon";
}

// ARGS (the program looked up on PATH) in this process's environment with the
// NAME=value settings of env in place of its own; the output goes through
// <dir>/out and <dir>/err.  With killAfterMs >= 0 it is killed (SIGKILL) that
// long after it starts, if it still runs.
inline ProgramRun RunProgram(std::vector<std::string> args, const std::string &dir,
                            std::vector<std::string> env = {}, int killAfterMs = -1) {
    std::vector<char *> argv, envp;
    for (auto &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const size_t ours = env.size();
    for (char **e = environ; *e != nullptr; ++e) {
        bool replaced = false;
        for (size_t i = 0; i < ours; ++i)
            replaced = replaced || std::strncmp(*e, env[i].c_str(), env[i].find('=') + 1) == 0;
        if (!replaced) env.push_back(*e);
    }
    for (auto &e : env) envp.push_back(e.data());
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    std::string out = dir + "/out", err = dir + "/err";
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid;
    ProgramRun run;
    if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), envp.data()) == 0) {
        int status = 0, waited = 0;
        while (killAfterMs >= 0 && waitpid(pid, &status, WNOHANG) == 0 && waited++ < killAfterMs) usleep(1000);
        if (killAfterMs < 0 || waited > killAfterMs) {
            if (killAfterMs >= 0) kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
        }
        run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    posix_spawn_file_actions_destroy(&actions);
    run.out = Slurp(out);
    run.err = Slurp(err);
    return run;
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
    // kvtmon ARGS with KVT_PREFIX=<dir_>/prefix and KVT_TIMESCALE=<timeScale_>.
    KvtmonRun Kvtmon(std::vector<std::string> args, int killAfterMs = -1) {
        args.insert(args.begin(), KvtmonPath());
        return RunProgram(std::move(args), dir_,
                          {"KVT_PREFIX=" + dir_ + "/prefix", std::string("KVT_TIMESCALE=") + timeScale_}, killAfterMs);
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
