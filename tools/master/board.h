// The master's side of a board directory: the directory itself, chip 0's
// memory file (mapped shared, so the slaves' DMA writes show at once) and
// chip 0's listening socket.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace tmaster {

class board_files {
public:
    board_files() = default;
    ~board_files();
    board_files(const board_files&) = delete;
    board_files& operator=(const board_files&) = delete;

    // Creates the directory (and missing parents) and chip0.mem, and maps
    // the memory. Returns 0, or -1 with the reason in *err.
    int open(const std::string& dir, std::string* err);
    void close();

    const std::string& dir() const { return dir_; }
    std::string path(const std::string& rel) const { return dir_ + "/" + rel; }
    std::span<uint8_t> memory() const { return {mem_, mem_ != nullptr ? size_ : 0}; }

    // Binds a fresh chip0.sock (a stale one is replaced) and listens on it.
    // Returns the non-blocking, close-on-exec descriptor, or -1 with *err.
    int listen_socket(std::string* err) const;

private:
    std::string dir_;
    uint8_t* mem_ = nullptr;
    size_t size_ = 0;
};

// Creates dir and its missing parents. Returns 0, or -1 with errno set.
int make_dirs(const std::string& dir);

}  // namespace tmaster
