#include "master/board.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "master/wire.h"

namespace tmaster {

namespace {

std::string sys_error(const std::string& what, const std::string& path)
{
    return what + " " + path + ": " + std::strerror(errno);
}

}  // namespace

int make_dirs(const std::string& dir)
{
    if (dir.empty()) {
        errno = ENOENT;
        return -1;
    }
    for (size_t pos = 1; pos <= dir.size(); ++pos) {
        if (pos != dir.size() && dir[pos] != '/')
            continue;
        std::string part = dir.substr(0, pos);
        if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST)
            return -1;
    }
    struct stat st;
    if (stat(dir.c_str(), &st) != 0)
        return -1;
    if (!S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        return -1;
    }
    return 0;
}

board_files::~board_files()
{
    close();
}

int board_files::open(const std::string& dir, std::string* err)
{
    close();
    if (dir.empty() || dir[0] != '/') {
        *err = "the board directory must be an absolute path: \"" + dir + "\"";
        return -1;
    }
    if (make_dirs(dir) != 0) {
        *err = sys_error("cannot create board directory", dir);
        return -1;
    }
    dir_ = dir;
    std::string mem_path = path("chip0.mem");
    int fd = ::open(mem_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        *err = sys_error("cannot open", mem_path);
        return -1;
    }
    // ftruncate leaves the file sparse: only pages written take space.
    if (ftruncate(fd, static_cast<off_t>(CHIP_MEM_SIZE)) != 0) {
        *err = sys_error("cannot size", mem_path);
        ::close(fd);
        return -1;
    }
    void* p = mmap(nullptr, CHIP_MEM_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (p == MAP_FAILED) {
        *err = sys_error("cannot map", mem_path);
        return -1;
    }
    mem_ = static_cast<uint8_t*>(p);
    size_ = CHIP_MEM_SIZE;
    return 0;
}

void board_files::close()
{
    if (mem_ != nullptr)
        munmap(mem_, size_);
    mem_ = nullptr;
    size_ = 0;
}

int board_files::listen_socket(std::string* err) const
{
    std::string sock_path = path("chip0.sock");
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (sock_path.size() >= sizeof(addr.sun_path)) {
        *err = "socket path too long for AF_UNIX: " + sock_path;
        return -1;
    }
    std::memcpy(addr.sun_path, sock_path.c_str(), sock_path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *err = sys_error("socket for", sock_path);
        return -1;
    }
    unlink(sock_path.c_str());
    if (bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0 || listen(fd, 64) != 0) {
        *err = sys_error("cannot listen on", sock_path);
        ::close(fd);
        return -1;
    }
    return fd;
}

}  // namespace tmaster
