// Simulated PCI memory: the memory file, the allocator, the memory map and
// the DMA engine's checks.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>

#include "platform/hi_mpi_pciv.h"
#include "platform/hi_mpi_sys.h"
#include "platform/sim/pcimem_sim.h"
#include "tests/support/fake_master.h"
#include "tests/support/test_board.h"

namespace {

class sim_pcimem_test : public board_test {};

constexpr uint32_t MiB = 1u << 20;

TEST_F(sim_pcimem_test, memory_file_is_sparse_and_blocks_are_aligned_disjoint_and_all_or_nothing)
{
    struct stat st;
    ASSERT_EQ(stat(board_.file("chip1.mem").c_str(), &st), 0);
    EXPECT_EQ(static_cast<uint64_t>(st.st_size), 256ull * MiB);
    EXPECT_LT(st.st_blocks * 512, 1 * MiB);

    uint32_t a[3];
    ASSERT_EQ(HI_MPI_PCIV_Malloc(5000, 3, a), 0);
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(a[k] >> 28, 2u);  // chip 1
        EXPECT_EQ(a[k] % 4096, 0u);
        if (k > 0) {
            EXPECT_GE(a[k] - a[k - 1], 8192u);
        }
    }
    uint32_t big[2];
    EXPECT_NE(HI_MPI_PCIV_Malloc(200 * MiB, 2, big), 0);
    EXPECT_EQ(sim_pcimem_allocated(), 15000u);
    ASSERT_EQ(HI_MPI_PCIV_Free(1, &a[1]), 0);
    EXPECT_NE(HI_MPI_PCIV_Free(1, &a[1]), 0);
    uint32_t again;
    ASSERT_EQ(HI_MPI_PCIV_Malloc(4096, 1, &again), 0);
    EXPECT_EQ(again, a[1]);  // the freed gap is reused
}

TEST_F(sim_pcimem_test, memory_map_reaches_only_this_chips_memory)
{
    uint32_t a;
    ASSERT_EQ(HI_MPI_PCIV_Malloc(2 * MiB, 1, &a), 0);
    auto* p = static_cast<unsigned char*>(HI_MPI_SYS_Mmap(a + 100, 64));
    ASSERT_NE(p, nullptr);
    std::memcpy(p, "chip memory", 11);
    int fd = open(board_.file("chip1.mem").c_str(), O_RDONLY);
    char back[11];
    ASSERT_EQ(pread(fd, back, 11, (a & 0x0FFFFFFF) + 100), 11);
    close(fd);
    EXPECT_EQ(std::memcmp(back, "chip memory", 11), 0);
    EXPECT_EQ(HI_MPI_SYS_Munmap(p, 64), 0);

    EXPECT_EQ(HI_MPI_SYS_Mmap(sim_bus_addr(0, 0), 4096), nullptr);          // the master's
    EXPECT_EQ(HI_MPI_SYS_Mmap(sim_bus_addr(1, 256 * MiB - 100), 200), nullptr);  // crosses the end
    EXPECT_EQ(HI_MPI_SYS_Mmap(0, 4096), nullptr);
}

TEST_F(sim_pcimem_test, dma_copies_in_the_direction_asked_and_refuses_any_bad_block_before_copying)
{
    fake_master master(board_.path());
    uint32_t local;
    ASSERT_EQ(HI_MPI_PCIV_Malloc(2 * MiB, 1, &local), 0);
    auto* mine = static_cast<unsigned char*>(HI_MPI_SYS_Mmap(local, 2 * MiB));
    std::memset(mine, 0xAB, 4096);

    pciv_dma_block_t blocks[2] = {{local, fake_master::bus(8192), 4096}, {local, fake_master::bus(0), 16}};
    pciv_dma_task_t write_task{2, 0, blocks};
    ASSERT_EQ(HI_MPI_PCIV_DmaTask(&write_task), 0);
    EXPECT_EQ(master.mem(8192)[4095], 0xAB);
    EXPECT_EQ(master.mem(0)[15], 0xAB);

    std::memcpy(master.mem(100), "from master", 11);
    pciv_dma_block_t pull{fake_master::bus(100), local + 1000, 11};
    pciv_dma_task_t read_task{1, 1, &pull};
    ASSERT_EQ(HI_MPI_PCIV_DmaTask(&read_task), 0);
    EXPECT_EQ(std::memcmp(mine + 1000, "from master", 11), 0);

    // One good block and one that crosses the end of the master's memory:
    // nothing is copied. Nor in the wrong direction, nor to another chip.
    std::memset(master.mem(0), 0, 16);
    pciv_dma_block_t bad[2] = {{local, fake_master::bus(0), 16}, {local, fake_master::bus(256 * MiB - 8), 16}};
    pciv_dma_task_t bad_task{2, 0, bad};
    EXPECT_NE(HI_MPI_PCIV_DmaTask(&bad_task), 0);
    pciv_dma_task_t wrong_way{1, 1, bad};  // reading into the master's memory
    EXPECT_NE(HI_MPI_PCIV_DmaTask(&wrong_way), 0);
    bad[0].dst_addr = sim_bus_addr(2, 0);  // another slave's memory
    pciv_dma_task_t other_chip{1, 0, bad};
    EXPECT_NE(HI_MPI_PCIV_DmaTask(&other_chip), 0);
    EXPECT_EQ(master.mem(0)[0], 0);
    EXPECT_EQ(std::memcmp(mine + 1000, "from master", 11), 0);

    reopen("HI_MPI_PCIV_DmaTask=a0268003");
    EXPECT_EQ(HI_MPI_PCIV_DmaTask(&write_task), static_cast<int32_t>(0xa0268003));
    EXPECT_EQ(master.mem(0)[0], 0);
}

}  // namespace
