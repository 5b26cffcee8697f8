#include "tests/support/slave_child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "cal/startup.h"
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
    if (f < 0 || dup2(f, fd) < 0)
        _exit(97);
    close(f);
}

// Forks with both output streams flushed, so nothing is written twice.
pid_t clean_fork()
{
    std::fflush(stdout);
    std::fflush(stderr);
    return fork();
}

}  // namespace

slave_child::slave_child(const slave_env& env, const std::string& console, const std::function<int()>& body)
    : console_(console)
{
    if ((pid_ = clean_fork()) != 0)
        return;
    // The child never returns into the test framework.
    redirect(STDOUT_FILENO, console_ + ".out");
    redirect(STDERR_FILENO, console_ + ".err");
    set_or_unset("TARVO_BOARD", env.board);
    set_or_unset("TARVO_CHIP_ID", env.chip);
    set_or_unset("TARVO_SIM_FAIL", env.fail);
    unsetenv("TARVO_SIM_SCHED");
    if (!env.workdir.empty() && chdir(env.workdir.c_str()) != 0)
        _exit(98);
    int r = body();
    std::fflush(stdout);
    _exit(r);
}

bool slave_child::reap(int options)
{
    int st;
    if (status_ < 0 && pid_ > 0 && waitpid(pid_, &st, options) == pid_)
        status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    return status_ >= 0;
}

bool slave_child::wait_for(const std::function<bool()>& pred, int timeout_ms)
{
    for (int waited = 0; waited <= timeout_ms; waited += 10) {
        if (pred())
            return true;
        if (reap(WNOHANG))
            return pred();
        usleep(10000);
    }
    return false;
}

int slave_child::finish(int timeout_ms)
{
    if (!wait_for([this] { return reap(WNOHANG); }, timeout_ms))
        kill();
    return status_;
}

void slave_child::kill()
{
    if (pid_ > 0 && status_ < 0) {
        ::kill(pid_, SIGKILL);
        reap(0);
    }
}

std::string slave_child::out() const
{
    return read_file(console_ + ".out");
}

std::string slave_child::err() const
{
    return read_file(console_ + ".err");
}

master_stub::master_stub(const std::string& board) : path_(board + "/chip0.sock")
{
    int lfd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path_.c_str());
    if (lfd < 0 || bind(lfd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(lfd, 64) != 0) {
        ADD_FAILURE() << "master stand-in: cannot listen on " << path_ << ": " << std::strerror(errno);
        return;
    }
    if ((pid_ = clean_fork()) != 0) {
        close(lfd);
        return;
    }
    std::vector<pollfd> fds{{lfd, POLLIN, 0}};
    char buf[4096];
    for (;;) {
        poll(fds.data(), fds.size(), -1);
        for (size_t i = 1; i < fds.size(); ++i) {
            if (fds[i].revents != 0 && read(fds[i].fd, buf, sizeof(buf)) <= 0) {
                close(fds[i].fd);
                fds[i].fd = -1;
            }
        }
        std::erase_if(fds, [](const pollfd& p) { return p.fd < 0; });
        if (fds[0].revents & POLLIN)
            if (int c = accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC); c >= 0)
                fds.push_back({c, POLLIN, 0});
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
    for (const std::string& line : read_lines(sched_log))
        if (line.ends_with(" SCHED_RR 2") && line.find(' ') + 11 == line.size())
            return true;
    return false;
}

int run_slave_then(const std::vector<std::string>& words, const std::function<int()>& after)
{
    // Start-up never returns: its thread stays with the process.
    std::thread([words] {
        arg_list args(words);
        tarvo_main(args.argc(), args.argv());
    }).detach();
    const char* chip = std::getenv("TARVO_CHIP_ID");
    std::string sched = std::string(std::getenv("TARVO_BOARD")) + "/chip" + (chip ? chip : "1") + "/sched.log";
    for (int i = 0; i < 3000 && !has_gui_record(sched); ++i)
        usleep(10000);
    return has_gui_record(sched) ? after() : 90;
}
