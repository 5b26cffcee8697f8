// Simulated PCI memory, the PCI allocator, the physical memory map and the
// DMA engine.
//
// Nothing maps a whole memory file: the memory map maps only the range asked
// for, and each DMA block maps the two page-aligned spans it copies between
// for the length of the copy. That keeps a 32-bit process's address space
// free however large the chips' memories are.
#include "platform/sim/pcimem_sim.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/hi_mpi_pciv.h"
#include "platform/hi_mpi_sys.h"
#include "platform/sim/board.h"
#include "platform/sim/families.h"
#include "platform/sim/fault.h"

namespace {

struct mapping {
    void* base;     // page-aligned start of the mmap
    size_t length;  // bytes mapped
    uint32_t size;  // size the caller asked for
};

std::mutex g_mutex;
int g_mem_fd = -1;                       // chip<T>.mem of this chip
std::map<uint32_t, uint32_t> g_blocks;   // allocated blocks: offset -> size
std::map<uintptr_t, mapping> g_maps;     // memory map results: address -> mapping

uint64_t page_size()
{
    static const uint64_t size = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    return size;
}

// A bus range [addr, addr + size) that lies inside one chip's memory.
struct bus_range {
    int chip;
    uint64_t offset;
};

bool decode_range(uint32_t addr, uint64_t size, bus_range* out)
{
    uint32_t top = addr >> 28;
    if (top < 1 || top > 15)
        return false;
    uint64_t offset = addr & 0x0FFFFFFFu;
    if (offset + size > SIM_CHIP_MEM_SIZE)
        return false;
    out->chip = static_cast<int>(top) - 1;
    out->offset = offset;
    return true;
}

// Maps [offset, offset + len) of a memory file; the pointer returned is the
// byte at offset, or nullptr.
class file_window {
public:
    file_window(int fd, uint64_t offset, uint64_t len, int prot)
    {
        uint64_t start = offset & ~(page_size() - 1);
        length_ = static_cast<size_t>(offset + len - start);
        if (length_ == 0)
            length_ = 1;
        void* p = mmap(nullptr, length_, prot, MAP_SHARED, fd, static_cast<off_t>(start));
        if (p == MAP_FAILED)
            return;
        base_ = p;
        at_ = static_cast<unsigned char*>(p) + (offset - start);
    }
    ~file_window()
    {
        if (base_ != nullptr)
            munmap(base_, length_);
    }
    file_window(const file_window&) = delete;
    file_window& operator=(const file_window&) = delete;

    unsigned char* at() const { return at_; }

private:
    void* base_ = nullptr;
    size_t length_ = 0;
    unsigned char* at_ = nullptr;
};

// First fit over the gaps between allocated blocks.
bool find_gap(uint32_t size, uint32_t* offset)
{
    uint64_t cursor = 0;
    for (const auto& [off, len] : g_blocks) {
        if (off - cursor >= size) {
            *offset = static_cast<uint32_t>(cursor);
            return true;
        }
        cursor = (static_cast<uint64_t>(off) + len + SIM_PCI_BLOCK_ALIGN - 1) & ~uint64_t{SIM_PCI_BLOCK_ALIGN - 1};
    }
    if (SIM_CHIP_MEM_SIZE - cursor >= size) {
        *offset = static_cast<uint32_t>(cursor);
        return true;
    }
    return false;
}

// The memory file of chip T as an open descriptor: this chip's own, or the
// master's (opened for each task, so that a master that recreated its file
// is seen). Its size must cover the whole memory.
int open_chip_mem(int chip, bool* owned)
{
    *owned = false;
    if (chip == sim_chip_id())
        return g_mem_fd;
    std::string path = sim_board_path("chip" + std::to_string(chip) + ".mem");
    int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return -1;
    struct stat st;
    if (fstat(fd, &st) != 0 || static_cast<uint64_t>(st.st_size) < SIM_CHIP_MEM_SIZE) {
        close(fd);
        return -1;
    }
    *owned = true;
    return fd;
}

}  // namespace

int sim_pcimem_open(std::string* err)
{
    std::lock_guard lock(g_mutex);
    std::string path = sim_board_path("chip" + std::to_string(sim_chip_id()) + ".mem");
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0 ||
        (static_cast<uint64_t>(st.st_size) != SIM_CHIP_MEM_SIZE &&
         ftruncate(fd, static_cast<off_t>(SIM_CHIP_MEM_SIZE)) != 0)) {
        *err = "cannot create " + path + ": " + std::strerror(errno);
        if (fd >= 0)
            close(fd);
        return -1;
    }
    g_mem_fd = fd;
    g_blocks.clear();
    return 0;
}

void sim_pcimem_close()
{
    std::lock_guard lock(g_mutex);
    for (const auto& [addr, m] : g_maps)
        munmap(m.base, m.length);
    g_maps.clear();
    g_blocks.clear();
    if (g_mem_fd >= 0)
        close(g_mem_fd);
    g_mem_fd = -1;
}

uint64_t sim_pcimem_allocated()
{
    std::lock_guard lock(g_mutex);
    uint64_t total = 0;
    for (const auto& [off, len] : g_blocks)
        total += len;
    return total;
}

int32_t HI_MPI_PCIV_Malloc(uint32_t blk_size, uint32_t blk_cnt, uint32_t phys_addr[])
{
    if (int32_t r = sim_fail(SIM_OP_HI_MPI_PCIV_Malloc))
        return r;
    if (phys_addr == nullptr)
        return hi_err(HI_ID_PCIV, HI_ERR_NULL_PTR);
    if (blk_size == 0 || blk_cnt == 0 || blk_size > SIM_CHIP_MEM_SIZE)
        return hi_err(HI_ID_PCIV, HI_ERR_ILLEGAL_PARAM);
    std::lock_guard lock(g_mutex);
    if (g_mem_fd < 0)
        return hi_err(HI_ID_PCIV, HI_ERR_SYS_NOTREADY);
    // All blocks or none.
    std::vector<uint32_t> got;
    for (uint32_t i = 0; i < blk_cnt; ++i) {
        uint32_t off;
        if (!find_gap(blk_size, &off)) {
            for (uint32_t o : got)
                g_blocks.erase(o);
            return hi_err(HI_ID_PCIV, HI_ERR_NOMEM);
        }
        g_blocks.emplace(off, blk_size);
        got.push_back(off);
    }
    for (uint32_t i = 0; i < blk_cnt; ++i)
        phys_addr[i] = sim_bus_addr(sim_chip_id(), got[i]);
    return 0;
}

int32_t HI_MPI_PCIV_Free(uint32_t blk_cnt, const uint32_t phys_addr[])
{
    if (int32_t r = sim_fail(SIM_OP_HI_MPI_PCIV_Free))
        return r;
    if (phys_addr == nullptr)
        return hi_err(HI_ID_PCIV, HI_ERR_NULL_PTR);
    std::lock_guard lock(g_mutex);
    std::vector<uint32_t> offsets;
    for (uint32_t i = 0; i < blk_cnt; ++i) {
        bus_range r;
        if (!decode_range(phys_addr[i], 0, &r) || r.chip != sim_chip_id() ||
            g_blocks.count(static_cast<uint32_t>(r.offset)) == 0)
            return hi_err(HI_ID_PCIV, HI_ERR_ILLEGAL_PARAM);
        offsets.push_back(static_cast<uint32_t>(r.offset));
    }
    for (uint32_t off : offsets)
        g_blocks.erase(off);
    return 0;
}

void* HI_MPI_SYS_Mmap(uint32_t phys_addr, uint32_t size)
{
    if (sim_fail(SIM_OP_HI_MPI_SYS_Mmap) != 0)
        return nullptr;
    bus_range r;
    if (size == 0 || !decode_range(phys_addr, size, &r) || r.chip != sim_chip_id())
        return nullptr;
    std::lock_guard lock(g_mutex);
    if (g_mem_fd < 0)
        return nullptr;
    uint64_t start = r.offset & ~(page_size() - 1);
    size_t length = static_cast<size_t>(r.offset + size - start);
    void* p = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, g_mem_fd, static_cast<off_t>(start));
    if (p == MAP_FAILED)
        return nullptr;
    unsigned char* at = static_cast<unsigned char*>(p) + (r.offset - start);
    g_maps[reinterpret_cast<uintptr_t>(at)] = mapping{p, length, size};
    return at;
}

int32_t HI_MPI_SYS_Munmap(void* virt_addr, uint32_t size)
{
    if (int32_t r = sim_fail(SIM_OP_HI_MPI_SYS_Munmap))
        return r;
    std::lock_guard lock(g_mutex);
    auto it = g_maps.find(reinterpret_cast<uintptr_t>(virt_addr));
    if (it == g_maps.end() || it->second.size != size)
        return hi_err(HI_ID_SYS, HI_ERR_ILLEGAL_PARAM);
    munmap(it->second.base, it->second.length);
    g_maps.erase(it);
    return 0;
}

int32_t HI_MPI_PCIV_DmaTask(pciv_dma_task_t* task)
{
    if (int32_t r = sim_fail(SIM_OP_HI_MPI_PCIV_DmaTask))
        return r;
    if (task == nullptr || (task->count > 0 && task->blocks == nullptr))
        return hi_err(HI_ID_PCIV, HI_ERR_NULL_PTR);
    if (task->count == 0 || (task->read != 0 && task->read != 1))
        return hi_err(HI_ID_PCIV, HI_ERR_ILLEGAL_PARAM);

    // Reading pulls from the master's memory into this chip's; writing goes
    // the other way. Every block is checked before anything is copied.
    const int self = sim_chip_id();
    const int src_chip = task->read ? 0 : self;
    const int dst_chip = task->read ? self : 0;
    for (uint32_t i = 0; i < task->count; ++i) {
        const pciv_dma_block_t& b = task->blocks[i];
        bus_range src, dst;
        if (!decode_range(b.src_addr, b.blk_size, &src) || src.chip != src_chip ||
            !decode_range(b.dst_addr, b.blk_size, &dst) || dst.chip != dst_chip)
            return hi_err(HI_ID_PCIV, HI_ERR_BADADDR);
    }

    std::lock_guard lock(g_mutex);
    if (g_mem_fd < 0)
        return hi_err(HI_ID_PCIV, HI_ERR_SYS_NOTREADY);
    bool owned = false;
    int master_fd = open_chip_mem(0, &owned);
    if (master_fd < 0)
        return hi_err(HI_ID_PCIV, HI_ERR_UNEXIST);
    int src_fd = task->read ? master_fd : g_mem_fd;
    int dst_fd = task->read ? g_mem_fd : master_fd;

    int32_t result = 0;
    for (uint32_t i = 0; i < task->count && result == 0; ++i) {
        const pciv_dma_block_t& b = task->blocks[i];
        if (b.blk_size == 0)
            continue;
        file_window src(src_fd, b.src_addr & 0x0FFFFFFFu, b.blk_size, PROT_READ);
        file_window dst(dst_fd, b.dst_addr & 0x0FFFFFFFu, b.blk_size, PROT_READ | PROT_WRITE);
        if (src.at() == nullptr || dst.at() == nullptr)
            result = hi_err(HI_ID_PCIV, HI_ERR_NOMEM);
        else
            std::memcpy(dst.at(), src.at(), b.blk_size);
    }
    if (owned)
        close(master_fd);
    return result;
}
