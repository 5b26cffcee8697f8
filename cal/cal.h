// The CAL core: the one object through which every part of the process
// reaches every other. It holds the command-line settings, the module
// objects, the two transmit threads and the two queues that feed them.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "runtime/kel_thread.h"

struct cal_enc_t;
struct cal_vout_t;
struct cal_vin_t;
struct cal_hsc_t;
struct cal_dec_t;

struct cal_t {
    cal_enc_t* enc;
    cal_vout_t* vout;
    cal_vin_t* vin;
    cal_hsc_t* hsc;
    cal_dec_t* dec;
    int num_vin;        // number of video inputs
    int master;         // 1 when started in the "master" role
    int cam_base;       // recorder-wide number of this slave's first camera
    int slave_cam;      // cameras on this slave, 0 .. 32
    kel_thread_t* thread_encr;  // runs tx_encr_thread
    kel_thread_t* thread_encn;  // runs tx_encn_thread
    int msgid_encr;
    int msgid_encn;
    int size;           // sizeof(cal_t)
};

// The single core, set once by start-up before any worker thread exists.
extern cal_t* g_cal;

// Queue keys: the ASCII of "encr" and "encn".
inline constexpr key_t MSG_KEY_ENCR = 0x656e6372;
inline constexpr key_t MSG_KEY_ENCN = 0x656e636e;

// The slave-local index of a recorder-wide camera number, or -1 when the
// camera is not one of this slave's. Safe for any cam and any cam_base.
inline int cal_local_cam(const cal_t* cal, int64_t cam)
{
    int64_t c = cam - static_cast<int64_t>(cal->cam_base);
    return c >= 0 && c < cal->slave_cam ? static_cast<int>(c) : -1;
}

cal_t* cal_new();
void cal_mod_new(cal_t* cal);
int cal_start(cal_t* cal);
int cal_stop(cal_t* cal);
void cal_delete(cal_t* cal);

// Applies the scheduling of a thread name to the calling thread; 0 for a
// known name (also when the system refuses), -1 for an unknown one.
int cal_thread_priority(int unused, const char* name);

int _system_insmod();

// Empties a queue: non-blocking receives of any type until one fails.
// Returns the number of messages discarded.
int cal_drain_queue(int msgid);
