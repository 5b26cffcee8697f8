#include "tests/support/slave_child.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <thread>

#include "cal/startup.h"

slave_child::slave_child(const std::string& board, int chip, const std::vector<std::string>& words,
                         const std::function<int()>& after, const std::string& workdir)
{
    std::fflush(nullptr);  // so that nothing is written twice
    if ((pid_ = fork()) != 0)
        return;
    // The child never returns into the test framework.
    int console = open(logs_.file("console").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int master = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof(addr.sun_path), "%s/chip0.sock", board.c_str());
    if (console < 0 || dup2(console, STDOUT_FILENO) < 0 || dup2(console, STDERR_FILENO) < 0 || master < 0 ||
        bind(master, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(master, 64) != 0 ||
        (!workdir.empty() && chdir(workdir.c_str()) != 0))
        _exit(97);
    setenv("TARVO_BOARD", board.c_str(), 1);
    setenv("TARVO_CHIP_ID", std::to_string(chip).c_str(), 1);
    unsetenv("TARVO_SIM_FAIL");
    unsetenv("TARVO_SIM_SCHED");
    // Start-up never returns: its thread stays with the process.
    std::thread([words] {
        arg_list args(words);
        tarvo_main(args.argc(), args.argv());
    }).detach();
    // Start-up's last step: the main loop's "<tid> SCHED_RR 2" in sched.log.
    std::string sched = board + "/chip" + std::to_string(chip) + "/sched.log";
    auto raised = [&] { return read_file(sched).find(" SCHED_RR 2\n") != std::string::npos; };
    for (int i = 0; i < 3000 && !raised(); ++i)
        usleep(10000);
    int r = raised() ? after() : 90;
    std::fflush(stdout);
    _exit(r);
}

slave_child::~slave_child()
{
    if (pid_ > 0 && status_ < 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

int slave_child::finish()
{
    int st = 0;
    if (status_ < 0 && pid_ > 0 && waitpid(pid_, &st, 0) == pid_)
        status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    return status_;
}
