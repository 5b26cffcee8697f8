// `tarvo-master record`: a recorder on a simulated board. It starts the
// slaves, configures their cameras and streams as a recorder's main
// application does, receives every stream for a while, checks it and
// writes it to files, then ends the slaves and sums up.
#pragma once

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "master/streams.h"

namespace tmaster {

class master;

struct record_options {
    std::string board;  // absolute path; created when missing
    std::string slave;  // the slave program
    // Slaves, cameras, stream settings and the output folder. No slaves:
    // one on chip 1 with cameras 0..7.
    record_plan plan;
    int seconds = 30;  // counted once every stream has begun
    std::chrono::milliseconds first_key_wait{60000};
    std::chrono::milliseconds port_wait{20000};
    int progress_every_s = 5;
    FILE* progress = nullptr;  // progress lines; nullptr: quiet
    FILE* notes_to = nullptr;  // the master's notes
    const volatile std::sig_atomic_t* interrupt = nullptr;  // set: stop early
    // Called on the recording's thread once per whole second of recording
    // (1, 2, ...), so a caller can send commands while the streams run.
    std::function<void(master& m, int second)> every_second;
};

// The recorder's plan for `slaves` slaves on chips 1..slaves, chip k with
// cameras cameras * (k - 1) onwards, the other settings the defaults. With
// slave_masks, every slave has one privacy mask, on its first camera (a
// band along the picture's top right, where the time overlay is not).
record_plan recorder_plan(int slaves, int cameras, bool slave_masks);

// Runs a recording and returns its summary; also writes it to
// <out>/summary.json. rc is 0 when every slave was set up, every
// configured stream delivered its first key frame and every camera whose
// REC runs on an input its first snapshot.
record_summary record(record_options o);

// Sets up one slave as a recorder does: HSCC_CAL_SetTime (now),
// HSCC_CAL_SetVincaps progressive 30 for each camera (1920x1080 unless the
// plan's camera says otherwise), set-video REC, REC LOW and NET LOW,
// run-video on for kinds 0 (unless the camera's REC is off), 4, 5 (when the
// plan has the copy and the camera its REC) and 6, the JPEG switch (kind 2)
// as planned, then the update with sync at the system frame rate.
// Returns the commands that failed or were refused; empty when all were
// answered with 0.
std::vector<std::string> configure_recorder(master& m, const slave_plan& p, const record_plan& plan,
                                            std::chrono::milliseconds timeout);

}  // namespace tmaster
