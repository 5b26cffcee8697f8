#include "tests/support/slave_child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

#include "cal/startup.h"
#include "platform/sim/board.h"
#include "tests/support/test_board.h"

namespace {

void set_or_unset(const char* name, const std::string& value)
{
    if (value.empty())
        unsetenv(name);
    else
        setenv(name, value.c_str(), 1);
}

void redirect(int fd, const std::string& path)
{
    int f = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (f < 0)
        _exit(97);
    dup2(f, fd);
    close(f);
}

}  // namespace

slave_child::slave_child(const slave_env& env, const std::string& console_prefix, std::function<int()> body)
    : prefix_(console_prefix)
{
    std::fflush(stdout);
    std::fflush(stderr);
    pid_ = fork();
    if (pid_ != 0)
        return;
    // The child: never returns into the test framework.
    redirect(STDOUT_FILENO, prefix_ + ".out");
    redirect(STDERR_FILENO, prefix_ + ".err");
    set_or_unset("TARVO_BOARD", env.board);
    set_or_unset("TARVO_CHIP_ID", env.chip);
    set_or_unset("TARVO_SIM_FAIL", env.fail);
    unsetenv("TARVO_SIM_SCHED");
    if (!env.workdir.empty() && chdir(env.workdir.c_str()) != 0)
        _exit(98);
    int r = body();
    std::fflush(stdout);
    std::fflush(stderr);
    _exit(r);
}

slave_child::~slave_child()
{
    if (pid_ > 0 && status_ < 0)
        kill();
}

bool slave_child::wait_for(const std::function<bool()>& pred, int timeout_ms)
{
    for (int waited = 0; waited <= timeout_ms; waited += 10) {
        if (pred())
            return true;
        int st;
        if (status_ < 0 && waitpid(pid_, &st, WNOHANG) == pid_) {
            status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
            return pred();
        }
        usleep(10000);
    }
    return false;
}

int slave_child::finish(int timeout_ms)
{
    wait_for([this] { return status_ >= 0; }, timeout_ms);
    if (status_ < 0)
        kill();
    return status_;
}

void slave_child::kill()
{
    if (pid_ <= 0 || status_ >= 0)
        return;
    ::kill(pid_, SIGKILL);
    int st;
    if (waitpid(pid_, &st, 0) == pid_)
        status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

std::string slave_child::out() const
{
    return read_file(prefix_ + ".out");
}

std::string slave_child::err() const
{
    return read_file(prefix_ + ".err");
}

master_stub::master_stub(const std::string& board) : path_(board + "/chip0.sock")
{
    int lfd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path_.c_str());
    if (lfd < 0 || bind(lfd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(lfd, 64) != 0) {
        ADD_FAILURE() << "master stand-in: cannot listen on " << path_ << ": " << std::strerror(errno);
        if (lfd >= 0)
            close(lfd);
        return;
    }
    std::fflush(stdout);
    std::fflush(stderr);
    pid_ = fork();
    if (pid_ != 0) {
        close(lfd);
        return;
    }
    std::vector<pollfd> fds{{lfd, POLLIN, 0}};
    char buf[4096];
    for (;;) {
        if (poll(fds.data(), fds.size(), -1) < 0)
            continue;
        if (fds[0].revents & POLLIN) {
            int c = accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC);
            if (c >= 0)
                fds.push_back({c, POLLIN, 0});
        }
        for (size_t i = 1; i < fds.size(); ++i) {
            if (fds[i].revents == 0)
                continue;
            if (read(fds[i].fd, buf, sizeof(buf)) <= 0) {
                close(fds[i].fd);
                fds[i].fd = -1;
            }
        }
        std::erase_if(fds, [](const pollfd& p) { return p.fd < 0; });
    }
}

master_stub::~master_stub()
{
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    unlink(path_.c_str());
}

arg_list::arg_list(std::vector<std::string> words) : words_(std::move(words))
{
    for (std::string& w : words_)
        ptrs_.push_back(w.data());
    ptrs_.push_back(nullptr);
}

bool has_gui_record(const std::string& sched_log)
{
    for (const std::string& line : read_lines(sched_log)) {
        size_t sp = line.find(' ');
        if (sp != std::string::npos && line.substr(sp) == " SCHED_RR 2")
            return true;
    }
    return false;
}

int run_slave_then(const std::vector<std::string>& words, const std::function<int()>& after)
{
    // Start-up never returns: its thread stays with the process.
    std::thread([words] {
        arg_list args(words);
        tarvo_main(args.argc(), args.argv());
    }).detach();
    const char* board = std::getenv("TARVO_BOARD");
    const char* chip = std::getenv("TARVO_CHIP_ID");
    std::string sched = std::string(board ? board : "") + "/chip" + (chip ? chip : "1") + "/sched.log";
    for (int i = 0; i < 3000 && !has_gui_record(sched); ++i)
        usleep(10000);
    if (!has_gui_record(sched))
        return 90;
    return after();
}
