#include "master/process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <thread>

extern char** environ;

namespace tmaster {

std::vector<std::string> slave_config::argv() const
{
    return {binary, role, std::to_string(cam_base), std::to_string(slave_cam), std::to_string(num_vin)};
}

pid_t spawn_slave(const slave_config& cfg, const std::string& board, std::string* err)
{
    std::vector<std::string> env;
    // The board's own variables are set below for this slave; only the leak
    // check's switch passes through from the master's environment.
    for (char** e = environ; e != nullptr && *e != nullptr; ++e) {
        if (std::strncmp(*e, "TARVO_", 6) != 0 || std::strncmp(*e, "TARVO_SIM_LEAK_CHECK=", 21) == 0)
            env.emplace_back(*e);
    }
    env.push_back("TARVO_BOARD=" + board);
    env.push_back("TARVO_CHIP_ID=" + std::to_string(cfg.chip));
    if (!cfg.fail_rules.empty())
        env.push_back("TARVO_SIM_FAIL=" + cfg.fail_rules);
    if (cfg.sim_sched)
        env.push_back("TARVO_SIM_SCHED=1");

    std::vector<std::string> args = cfg.argv();
    std::vector<char*> argv_p;
    for (std::string& a : args)
        argv_p.push_back(a.data());
    argv_p.push_back(nullptr);
    std::vector<char*> env_p;
    for (std::string& e : env)
        env_p.push_back(e.data());
    env_p.push_back(nullptr);

    std::string console = board + "/chip" + std::to_string(cfg.chip) + ".console";
    int fd = open(console.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        *err = "cannot open " + console + ": " + std::strerror(errno);
        return -1;
    }
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&fa, fd, 1);
    posix_spawn_file_actions_adddup2(&fa, fd, 2);
    pid_t pid = -1;
    int r = posix_spawn(&pid, cfg.binary.c_str(), &fa, nullptr, argv_p.data(), env_p.data());
    posix_spawn_file_actions_destroy(&fa);
    close(fd);
    if (r != 0) {
        *err = "cannot start " + cfg.binary + ": " + std::strerror(r);
        return -1;
    }
    return pid;
}

namespace {

// Reaps the process if it has ended: its wait status, or -1.
int reap_now(pid_t pid)
{
    int status = 0;
    pid_t r;
    do {
        r = waitpid(pid, &status, WNOHANG);
    } while (r < 0 && errno == EINTR);
    return r == pid ? status : -1;
}

}  // namespace

int peek_process(pid_t pid)
{
    siginfo_t si{};
    int r;
    do {
        r = waitid(P_PID, static_cast<id_t>(pid), &si, WEXITED | WNOHANG | WNOWAIT);
    } while (r < 0 && errno == EINTR);
    if (r != 0 || si.si_pid != pid)
        return -1;
    switch (si.si_code) {
    case CLD_EXITED: return (si.si_status & 0xff) << 8;
    case CLD_KILLED: return si.si_status & 0x7f;
    case CLD_DUMPED: return (si.si_status & 0x7f) | 0x80;
    default: return -1;
    }
}

int end_process(pid_t pid, std::chrono::milliseconds grace)
{
    if (pid <= 0)
        return -1;
    int status = reap_now(pid);
    if (status >= 0)
        return status;
    // A process that ended but is not reaped yet still owns its pid, so
    // these signals cannot reach another process.
    if (kill(pid, SIGTERM) != 0 && errno == ESRCH)
        return -1;
    auto deadline = std::chrono::steady_clock::now() + grace;
    while (std::chrono::steady_clock::now() < deadline) {
        if ((status = reap_now(pid)) >= 0)
            return status;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(pid, SIGKILL);
    pid_t r;
    do {
        r = waitpid(pid, &status, 0);
    } while (r < 0 && errno == EINTR);
    return r == pid ? status : -1;
}

std::string describe_status(int status)
{
    if (status < 0)
        return "running";
    if (WIFEXITED(status))
        return "exited with status " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status))
        return "killed by signal " + std::to_string(WTERMSIG(status));
    return "ended (status " + std::to_string(status) + ")";
}

int release_chip_queues(const std::string& board, int chip)
{
    std::string path = board + "/chip" + std::to_string(chip) + "/msgq";
    FILE* f = std::fopen(path.c_str(), "re");
    if (f == nullptr)
        return 0;
    int removed = 0;
    unsigned key = 0, host = 0;
    while (std::fscanf(f, "%x %x", &key, &host) == 2) {
        if (host == 0)  // IPC_PRIVATE would make a new queue, not name one
            continue;
        int id = msgget(static_cast<key_t>(host), 0);
        if (id >= 0 && msgctl(id, IPC_RMID, nullptr) == 0)
            ++removed;
    }
    std::fclose(f);
    return removed;
}

}  // namespace tmaster
