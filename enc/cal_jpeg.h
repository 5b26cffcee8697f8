// Snapshot descriptor: one per JPEG picture, handed with the picture's block
// to the JPEG transfer.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr int JPG_DESC_WIRE_SIZE = 16;
inline constexpr int JPG_BATCH_MAX = 9;  // pictures the JPEG thread sends at once

struct jpg_desc_t {
    int32_t jpg_on;       // the camera's JPEG switch when the picture was taken
    uint32_t time;        // seconds since the epoch when it was stored
    uint32_t len;         // picture length in bytes
    unsigned char* data;  // the picture's heap block (the transfer frees it)
};
static_assert(offsetof(jpg_desc_t, time) == 4);
static_assert(offsetof(jpg_desc_t, len) == 8);
static_assert(offsetof(jpg_desc_t, data) == 12 || sizeof(void*) != 4);
static_assert(sizeof(void*) != 4 || sizeof(jpg_desc_t) == JPG_DESC_WIRE_SIZE,
              "on the chip the descriptor is its own wire image");
