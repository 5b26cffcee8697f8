// Simulated PCI memory: chip T's physical memory is the board file
// chip<T>.mem (256 MiB, sparse); byte k of it has bus address
// ((T + 1) << 28) | k. The PCI allocator hands out 4 KiB-aligned blocks of
// the chip's own memory, the memory map maps ranges of it, and the DMA engine
// copies between chip 0's memory and the chip's own.
#pragma once

#include <cstdint>

inline constexpr uint64_t SIM_CHIP_MEM_SIZE = 256ull << 20;
inline constexpr uint32_t SIM_PCI_BLOCK_ALIGN = 4096;

constexpr uint32_t sim_bus_addr(int chip, uint32_t offset)
{
    return (static_cast<uint32_t>(chip + 1) << 28) | offset;
}

// Bytes currently allocated by HI_MPI_PCIV_Malloc (for tests).
uint64_t sim_pcimem_allocated();
