// A program run as a user runs it, and what it printed.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

extern char **environ;

namespace kvttest {

struct ProgramRun {
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

// ARGS (the program looked up on PATH) in this process's environment, with
// each NAME=value of env in place of its own and each bare NAME taken out;
// standard input is /dev/null.  Its output goes through files of its own
// (a server it starts may outlive it and keep them open), read when it ends.
// With killAfterMs >= 0 it is killed (SIGKILL) that long after it starts, if
// it still runs.
inline ProgramRun RunProgram(std::vector<std::string> args, std::vector<std::string> env = {},
                             int killAfterMs = -1) {
    std::vector<char *> argv, envp;
    for (auto &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const size_t ours = env.size();
    for (char **e = environ; *e != nullptr; ++e) {
        bool replaced = false;
        for (size_t i = 0; i < ours && !replaced; ++i) {
            const std::string name = env[i].substr(0, env[i].find('=')) + "=";
            replaced = std::strncmp(*e, name.c_str(), name.size()) == 0;
        }
        if (!replaced) env.push_back(*e);
    }
    for (auto &e : env)
        if (e.find('=') != std::string::npos) envp.push_back(e.data());
    envp.push_back(nullptr);

    char out[] = "/tmp/kvt-run-out.XXXXXX", err[] = "/tmp/kvt-run-err.XXXXXX";
    close(mkstemp(out));
    close(mkstemp(err));
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out, O_WRONLY | O_TRUNC, 0);
    posix_spawn_file_actions_addopen(&actions, 2, err, O_WRONLY | O_TRUNC, 0);
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
    unlink(out);
    unlink(err);
    return run;
}

}  // namespace kvttest
