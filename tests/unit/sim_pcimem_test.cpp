// Simulated PCI memory: the memory file, the allocator, the memory map and
// the DMA engine's checks.
#include <sys/stat.h>

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

TEST_F(sim_pcimem_test, sparse_memory_in_aligned_disjoint_blocks_and_dma_that_copies_all_or_nothing)
{
    struct stat st;
    ASSERT_EQ(stat(board_.file("chip1.mem").c_str(), &st), 0);
    EXPECT_EQ(static_cast<uint64_t>(st.st_size), 256ull * MiB);
    EXPECT_LT(st.st_blocks * 512, 1 * MiB);

    uint32_t a[3], big[2], again;
    ASSERT_EQ(HI_MPI_PCIV_Malloc(5000, 3, a), 0);
    for (int k = 0; k < 3; ++k)
        EXPECT_TRUE(a[k] >> 28 == 2 && a[k] % 4096 == 0 && (k == 0 || a[k] - a[k - 1] >= 8192)) << a[k];
    EXPECT_NE(HI_MPI_PCIV_Malloc(200 * MiB, 2, big), 0);
    EXPECT_EQ(sim_pcimem_allocated(), 15000u);
    ASSERT_EQ(HI_MPI_PCIV_Free(1, &a[1]), 0);
    EXPECT_NE(HI_MPI_PCIV_Free(1, &a[1]), 0);
    ASSERT_EQ(HI_MPI_PCIV_Malloc(4096, 1, &again), 0);
    EXPECT_EQ(again, a[1]);  // the freed gap is reused

    // The DMA engine copies either way through mapped memory and refuses
    // any bad block before copying.
    fake_master master(board_.path());
    uint32_t local;
    ASSERT_EQ(HI_MPI_PCIV_Malloc(2 * MiB, 1, &local), 0);
    auto* mine = static_cast<unsigned char*>(HI_MPI_SYS_Mmap(local, 2 * MiB));
    ASSERT_NE(mine, nullptr);
    EXPECT_EQ(HI_MPI_SYS_Mmap(sim_bus_addr(0, 0), 4096), nullptr);  // the map reaches only this chip
    EXPECT_EQ(HI_MPI_SYS_Mmap(sim_bus_addr(1, 256 * MiB - 100), 200), nullptr);

    std::memset(mine, 0xAB, 4096);
    pciv_dma_block_t blocks[2] = {{local, fake_master::bus(8192), 4096}, {local, fake_master::bus(0), 16}};
    pciv_dma_task_t write_task{2, 0, blocks};
    ASSERT_EQ(HI_MPI_PCIV_DmaTask(&write_task), 0);
    EXPECT_TRUE(master.mem(8192)[4095] == 0xAB && master.mem(0)[15] == 0xAB);
    std::memcpy(master.mem(100), "from master", 11);
    pciv_dma_block_t pull{fake_master::bus(100), local + 1000, 11};
    pciv_dma_task_t read_task{1, 1, &pull};
    ASSERT_EQ(HI_MPI_PCIV_DmaTask(&read_task), 0);
    EXPECT_EQ(std::memcmp(mine + 1000, "from master", 11), 0);

    // A good block beside one that crosses the end of the master's memory,
    // the wrong direction, another slave's memory: nothing is copied.
    std::memset(master.mem(0), 0, 16);
    pciv_dma_block_t bad[2] = {{local, fake_master::bus(0), 16}, {local, fake_master::bus(256 * MiB - 8), 16}};
    pciv_dma_task_t bad_task{2, 0, bad}, wrong_way{1, 1, bad};
    EXPECT_NE(HI_MPI_PCIV_DmaTask(&bad_task), 0);
    EXPECT_NE(HI_MPI_PCIV_DmaTask(&wrong_way), 0);
    bad[0].dst_addr = sim_bus_addr(2, 0);
    pciv_dma_task_t other_chip{1, 0, bad};
    EXPECT_NE(HI_MPI_PCIV_DmaTask(&other_chip), 0);
    EXPECT_EQ(master.mem(0)[0], 0);
}

}  // namespace
