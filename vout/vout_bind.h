// Bindings as the video output paths use them: what feeds a destination,
// and detaching it.
#pragma once

#include <climits>
#include <cstdint>

#include "platform/hi_comm.h"
#include "platform/hi_mpi_sys.h"

// The result of detaching a destination.
struct vout_detached_t {
    bool found;     // a source was bound (and src is it)
    mpp_chn_t src;
    int32_t err;    // the unbind's error, 0 when it succeeded or nothing was bound
};

// Asks the bind query what feeds dest and unbinds it.
inline vout_detached_t vout_detach(const mpp_chn_t& dest)
{
    vout_detached_t d{false, {}, 0};
    if (HI_MPI_SYS_GetBindbyDest(&dest, &d.src) != 0)
        return d;
    d.found = true;
    d.err = HI_MPI_SYS_UnBind(&d.src, &dest);
    return d;
}

inline int32_t vout_bind(const mpp_chn_t& src, const mpp_chn_t& dest)
{
    return HI_MPI_SYS_Bind(&src, &dest);
}

// A number computed from the master's values, as a platform id: kept when
// it fits 32 bits, else -1, which every family refuses.
inline int32_t vout_id(int64_t v)
{
    return v >= INT32_MIN && v <= INT32_MAX ? static_cast<int32_t>(v) : -1;
}

// Platform error codes are traced in hexadecimal.
inline unsigned vout_hex(int32_t r)
{
    return static_cast<unsigned>(r);
}
