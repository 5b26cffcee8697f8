// The simulated board: one board directory shared by the master and its
// slaves, this process being chip sim_chip_id() on it. Everything the
// process does beyond itself lands in that directory.
#pragma once

#include <string>
#include <string_view>

// Opens the board for this process: checks the directory, creates the
// chip's own files and sets the fault rules. Returns 0, or -1 with the
// reason in err. Tests may open and close boards repeatedly.
int sim_board_open(const char* dir, int chip, const char* fail_rules, std::string* err);
void sim_board_close();
bool sim_board_is_open();

const std::string& sim_board_dir();
int sim_chip_id();

// Recorder-wide number of this slave's first camera (its second command-line
// argument; 0 until set). Capture input c of the chip carries camera
// sim_cam_base() + c.
int sim_cam_base();
void sim_set_cam_base(int cam_base);

// <board>/<rel> and <board>/chip<T>/<rel> for this chip.
std::string sim_board_path(std::string_view rel);
std::string sim_chip_path(std::string_view rel);

// Removes the host message queues that the slaves of a board created
// (recorded in chip<T>/msgq). The owner of a board calls it when the board
// is no longer used. Returns the number of queues removed.
int sim_board_release_queues(const char* dir);
