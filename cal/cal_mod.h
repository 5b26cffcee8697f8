// How a module joins the process: one table per module with its command
// rows and its lifecycle operations. The core (cal_mod_new, cal_start,
// cal_stop, cal_delete), the command loop, the status reply and the clock
// command walk the tables; nothing else names a module's handlers.
//
// A module joins by defining its table (const cal_mod_t) and entering it in
// the registry initialiser (cal/cal.cpp). Each of its command rows reads a
// payload struct with static_assert'ed offsets; the row's minimum length is
// that struct's size.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>

#include "msg/cal_hsc.h"

struct cal_t;

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

// A command's payload as its struct. What did not arrive reads as zeros
// (the loop clears the rest of the message before dispatching).
template <class T>
T cal_payload(const hsc_msg_t* msg)
{
    static_assert(std::is_trivially_copyable_v<T> && sizeof(T) <= sizeof(msg->data));
    T v;
    std::memcpy(&v, msg->data, sizeof(T));
    return v;
}

// One command code (or range of codes with one handler) of a module.
struct cal_cmd_row_t {
    uint32_t code;
    uint32_t last;        // last code of the range; code for a single code
    uint32_t min_len;     // sizeof the payload struct the row reads
    bool result_zero;     // answered 0 whatever the handler returns
    // Extracts the payload, writes the loop's own trace of the command and
    // calls the module's handler; returns the handler's result.
    int (*run)(cal_t* cal, hsc_msg_t* msg);
};

// The modules the core owns besides the host-slave channel.
enum cal_mod_id : int {
    CAL_MOD_VOUT,
    CAL_MOD_DEC,
    CAL_MOD_ENC,
    CAL_MOD_VIN,
    CAL_MOD_COUNT,
};

struct cal_mod_t {
    const char* name;
    std::span<const cal_cmd_row_t> rows;
    // new: creates the module object and stores it in the core (it may
    // decline and leave the pointer NULL; the other operations are then
    // skipped).
    void (*create)(cal_t* cal);
    int (*start)(cal_t* cal);
    int (*stop)(cal_t* cal);
    // delete: frees the module object and clears the core's pointer.
    void (*destroy)(cal_t* cal);
    // Whether the core holds the module's object.
    bool (*present)(const cal_t* cal);
    // Writes the module's heartbeats into the status reply payload; NULL
    // when the module reports nothing.
    int (*status)(cal_t* cal, unsigned char* payload);
    // The master set the clock to us microseconds since the epoch; NULL
    // when the module keeps no time of its own.
    void (*set_time)(cal_t* cal, uint64_t us);
};

// The joined modules by id; NULL for a module not in the process yet.
// Written once before the core is created (tests may substitute tables).
extern const cal_mod_t* cal_mods[CAL_MOD_COUNT];

// The orders in which the core walks the tables. Creation runs after the
// host-slave channel and before the chip bring-up; deletion after the
// channel and the chip teardown. The decoder reports its heartbeat after
// the encoder, so its value is the one left at the offset both write.
inline constexpr cal_mod_id CAL_MOD_NEW_ORDER[] = {CAL_MOD_VOUT, CAL_MOD_DEC, CAL_MOD_ENC, CAL_MOD_VIN};
inline constexpr cal_mod_id CAL_MOD_START_ORDER[] = {CAL_MOD_DEC, CAL_MOD_ENC, CAL_MOD_VIN};
inline constexpr cal_mod_id CAL_MOD_STOP_ORDER[] = {CAL_MOD_DEC, CAL_MOD_ENC, CAL_MOD_VIN};
inline constexpr cal_mod_id CAL_MOD_DELETE_ORDER[] = {CAL_MOD_VIN, CAL_MOD_DEC, CAL_MOD_ENC, CAL_MOD_VOUT};
inline constexpr cal_mod_id CAL_MOD_STATUS_ORDER[] = {CAL_MOD_ENC, CAL_MOD_DEC};

// The module's table when it has joined and its object exists, else NULL.
inline const cal_mod_t* cal_mod_live(const cal_t* cal, cal_mod_id id)
{
    const cal_mod_t* m = cal_mods[id];
    return m != nullptr && m->present(cal) ? m : nullptr;
}

// Tells every joined module that the clock was set.
void cal_mod_set_time(cal_t* cal, uint64_t us);
