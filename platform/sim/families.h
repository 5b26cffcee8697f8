// Open and close hooks of the simulated board's families, called in order
// by sim_board_open and in reverse order by sim_board_close. Each family
// keeps its own state and starts afresh on every open.
#pragma once

#include <string>

int sim_os_open(std::string* err);
void sim_os_close();

int sim_sys_open(std::string* err);
void sim_sys_close();

// The media core (capture, processing groups, encoder, output, routing and
// memory zones); it reads board.conf on open.
int sim_media_open(std::string* err);
void sim_media_close();

// PCI memory (chip<T>.mem, the PCI allocator, memory map, DMA) and the
// message driver.
int sim_pcimem_open(std::string* err);
void sim_pcimem_close();

int sim_mcc_open(std::string* err);
void sim_mcc_close();
