#include "tests/support/jpeg_decode.h"

#ifdef TARVO_SIM_LIBJPEG

#include <algorithm>
#include <csetjmp>
#include <cstdio>

#include <jpeglib.h>

namespace {

// libjpeg's default error handler ends the process; this one jumps back to
// the decoder, which gives up on the picture.
struct error_mgr {
    jpeg_error_mgr pub;
    std::jmp_buf back;
};

[[noreturn]] void on_error(j_common_ptr cinfo)
{
    std::longjmp(reinterpret_cast<error_mgr*>(cinfo->err)->back, 1);
}

void no_message(j_common_ptr) {}

// Everything that must survive the jump lives in the caller; only plain
// data is touched between setjmp and a possible longjmp.
bool decode(std::span<const uint8_t> jpeg, jpeg_decompress_struct* cinfo, error_mgr* err, luma_picture* pic)
{
    if (setjmp(err->back) != 0)
        return false;
    jpeg_mem_src(cinfo, jpeg.data(), static_cast<unsigned long>(jpeg.size()));
    if (jpeg_read_header(cinfo, TRUE) != JPEG_HEADER_OK)
        return false;
    cinfo->out_color_space = JCS_GRAYSCALE;  // the Y component as it is
    jpeg_start_decompress(cinfo);
    pic->width = static_cast<int>(cinfo->output_width);
    pic->height = static_cast<int>(cinfo->output_height);
    pic->y.resize(static_cast<size_t>(pic->width) * pic->height);
    while (cinfo->output_scanline < cinfo->output_height) {
        JSAMPROW row = pic->y.data() + static_cast<size_t>(cinfo->output_scanline) * pic->width;
        jpeg_read_scanlines(cinfo, &row, 1);
    }
    jpeg_finish_decompress(cinfo);
    return true;
}

}  // namespace

double luma_picture::mean(int x0, int y0, int x1, int y1) const
{
    x0 = std::max(x0, 0);
    y0 = std::max(y0, 0);
    x1 = std::min(x1, width);
    y1 = std::min(y1, height);
    if (x0 >= x1 || y0 >= y1)
        return -1;
    uint64_t sum = 0;
    for (int r = y0; r < y1; ++r)
        for (int c = x0; c < x1; ++c)
            sum += at(c, r);
    return static_cast<double>(sum) / (static_cast<double>(x1 - x0) * (y1 - y0));
}

bool decode_jpeg_luma(std::span<const uint8_t> jpeg, luma_picture* out)
{
    if (jpeg.empty())
        return false;
    jpeg_decompress_struct cinfo{};
    error_mgr err{};
    cinfo.err = jpeg_std_error(&err.pub);
    err.pub.error_exit = on_error;
    err.pub.output_message = no_message;
    jpeg_create_decompress(&cinfo);
    luma_picture pic;
    const bool ok = decode(jpeg, &cinfo, &err, &pic);
    jpeg_destroy_decompress(&cinfo);
    if (ok)
        *out = std::move(pic);
    return ok;
}

#endif
