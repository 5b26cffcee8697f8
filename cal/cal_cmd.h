// The command loop: the main thread's last duty. It reads one command from
// the master on MSGPORT_CAL, runs the handler its code names, puts the
// handler's result into the message and writes the message back. Every
// command is answered exactly once, in order; unknown codes too.
#pragma once

#include <cstdint>

struct cal_t;
struct hsc_msg_t;

// Command codes of the master.
enum : uint32_t {
    HSCC_CAL_SetDmaInfo = 0x20001,
    HSCC_CAL_SetTz = 0x20002,
    HSCC_CAL_GetDmaInfo = 0x20003,
    HSCC_CAL_GetStatus = 0x20004,
    HSCC_CAL_SetLayout = 0x20100,
    HSCC_CAL_SetZoom = 0x20101,
    HSCC_CAL_SetVincaps = 0x20200,
    HSCC_CAL_SetMd = 0x20201,
    HSCC_CAL_SetVl = 0x20202,
    HSCC_CAL_SetTime = 0x20300,
    HSCC_CAL_SetEncVideo = 0x20301,
    HSCC_CAL_RunEncVideo = 0x20302,
    HSCC_CAL_InitPcivVo = 0x20303,
    HSCC_CAL_StartPcivVo = 0x20305,
    HSCC_CAL_StopPcivVo = 0x20306,
    HSCC_CAL_SetPrivacy = 0x20307,
    HSCC_CAL_UpdatEncVideo = 0x20308,
    HSCC_CAL_SetTimestamp = 0x2030a,
    HSCC_CAL_SetTimeFont = 0x20380,  // 0x20380 .. 0x20393: font slots 0 .. 19
    HSCC_CAL_SetTimeFont_Last = 0x20393,
    HSCC_CAL_3531_decstart = 0x20401,
    HSCC_CAL_3531_flush = 0x20402,
    HSCC_CAL_3531_playjpg = 0x20403,
    HSCC_CAL_3531_avcres = 0x20404,
};

// Payload bytes of the status reply.
inline constexpr uint32_t CAL_STATUS_LEN = 56;

// One turn: count heartbit, read one command (a failed read costs a 10 ms
// pause and returns -1), dispatch it and write the reply; returns 0.
int cal_cmd_turn(cal_t* cal, hsc_msg_t* msg);

// Turns for ever.
[[noreturn]] void cal_cmd_loop(cal_t* cal);

// Runs the row of msg's code on msg in place and returns the result that
// goes back to the master (0 for an unknown code).
int cal_cmd_dispatch(cal_t* cal, hsc_msg_t* msg);

// Builds the status reply in msg (HSCC_CAL_GetStatus).
int cal_cmd_get_status(cal_t* cal, hsc_msg_t* msg);

// The module handlers the table calls. An entry is NULL while its module is
// not part of the process; its command is then answered like an unknown
// code (unchanged, result 0) after the row's own trace. A module that joins
// the process fills its entries in the one initialiser of this table.
struct cal_cmd_handlers_t {
    int (*vout_set_layout)(cal_t* cal, int vout_idx, hsc_msg_t* msg, int target);
    int (*vout_set_zoom)(cal_t* cal, int cam, int w2, int w3, int x, int y, int width, int height);
    int (*vin_set_caps)(cal_t* cal, int cam, int xres, int yres, int prog, double fps, int type);
    int (*vin_set_md)(cal_t* cal, int cam, int md_threshold);
    int (*enc_set_video)(cal_t* cal, hsc_msg_t* msg);
    int (*enc_run_video)(cal_t* cal, hsc_msg_t* msg);
    int (*vout_pip_pcivinit)(cal_t* cal, hsc_msg_t* msg);
    int (*vout_main_pcivinit)(cal_t* cal, hsc_msg_t* msg);
    int (*vout_spot_pcivinit)(cal_t* cal, hsc_msg_t* msg);
    int (*vout_pippciv_start)(cal_t* cal, hsc_msg_t* msg);
    int (*vout_mainpciv_start)(cal_t* cal, hsc_msg_t* msg);
    int (*vout_pippciv_stop)(cal_t* cal, hsc_msg_t* msg);
    int (*vout_spot_pcivexit)(cal_t* cal, hsc_msg_t* msg);
    int (*vin_set_privacy)(cal_t* cal, hsc_msg_t* msg);
    int (*enc_update)(cal_t* cal, hsc_msg_t* msg);
    int (*enc_set_timestamp)(cal_t* cal, int w0, int w1, int w2);
    int (*enc_copy_timefont)(cal_t* cal, const unsigned char* payload, int slot);
    int (*dec_cmd)(cal_t* cal, int action, int arg);
    int (*enc_on_playjpg)(cal_t* cal, int value);
    int (*enc_init_avcres)(cal_t* cal, hsc_msg_t* msg);
    // Status reply: heartbeats into the payload (offsets 52 and 48).
    int (*enc_heart)(cal_t* cal, unsigned char* payload);
    int (*dec_get_heart)(cal_t* cal, unsigned char* payload);
};

extern cal_cmd_handlers_t cal_cmd_handlers;
