// Runs kvtmon as a user would, with a prefix of the test's own and the
// monitor's waits shrunk, and keeps what it printed.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

extern char **environ;

namespace kvttest {

struct KvtmonRun {
    int status = -1;  // the exit status, or 128 + the signal that ended it
    std::string out;
    std::string err;
};

inline std::string Slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// kvtmon ARGS with KVT_PREFIX=<dir>/prefix and KVT_TIMESCALE=<timeScale>; its
// output goes through <dir>/out and <dir>/err.  With killAfterMs >= 0 it is
// killed (SIGKILL) that long after it starts, if it still runs.
inline KvtmonRun RunKvtmon(std::vector<std::string> args, const std::string &dir, const char *timeScale,
                           int killAfterMs = -1) {
    const char *kvtmon = std::getenv("KVTMON");
    args.insert(args.begin(), kvtmon != nullptr ? kvtmon : KVT_BIN_DIR "/kvtmon");
    std::vector<char *> argv;
    for (auto &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> env = {"KVT_PREFIX=" + dir + "/prefix", std::string("KVT_TIMESCALE=") + timeScale};
    for (char **e = environ; *e != nullptr; ++e)
        if (std::strncmp(*e, "KVT_PREFIX=", 11) != 0 && std::strncmp(*e, "KVT_TIMESCALE=", 14) != 0)
            env.push_back(*e);
    std::vector<char *> envp;
    for (auto &e : env) envp.push_back(e.data());
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    std::string out = dir + "/out", err = dir + "/err";
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid;
    KvtmonRun run;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data()) == 0) {
        int status = 0;
        bool ended = false;
        for (int waited = 0; killAfterMs >= 0 && !ended; ++waited) {
            ended = waitpid(pid, &status, WNOHANG) == pid;
            if (!ended && waited >= killAfterMs) kill(pid, SIGKILL);
            if (!ended && waited >= killAfterMs) break;
            if (!ended) usleep(1000);
        }
        if (!ended) waitpid(pid, &status, 0);
        run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    posix_spawn_file_actions_destroy(&actions);
    run.out = Slurp(out);
    run.err = Slurp(err);
    return run;
}

}  // namespace kvttest
