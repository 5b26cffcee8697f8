// Baseline JPEG with libjpeg-turbo, straight from the planar 4:2:0 picture
// (raw data in: no colour conversion, no upsampling).
#include "platform/sim/jpeg_codec.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>

#include <jpeglib.h>

namespace {

// Row pointers for one band of rows (a multiple of the MCU height); rows
// past the picture repeat its last row.
void band(JSAMPROW* rows, int count, uint8_t* plane, int stride, int first, int height)
{
    for (int k = 0; k < count; ++k) {
        const int y = first + k < height ? first + k : height - 1;
        rows[k] = plane + static_cast<std::ptrdiff_t>(y) * stride;
    }
}

}  // namespace

bool sim_jpeg_encode(const sim_picture& pic, int quality, std::vector<uint8_t>* out)
{
    if (pic.width <= 0 || pic.height <= 0 || pic.c_step != 1 || quality < 1 || quality > 100)
        return false;
    jpeg_compress_struct cinfo;
    jpeg_error_mgr jerr;
    cinfo.err = jpeg_std_error(&jerr);
    // The arguments are checked above; libjpeg's own errors would exit, and
    // none of what remains can raise one short of running out of memory.
    jpeg_create_compress(&cinfo);
    unsigned char* mem = nullptr;
    unsigned long mem_len = 0;
    jpeg_mem_dest(&cinfo, &mem, &mem_len);
    cinfo.image_width = static_cast<JDIMENSION>(pic.width);
    cinfo.image_height = static_cast<JDIMENSION>(pic.height);
    cinfo.input_components = 3;
    cinfo.in_color_space = JCS_YCbCr;
    jpeg_set_defaults(&cinfo);
    jpeg_set_colorspace(&cinfo, JCS_YCbCr);
    jpeg_set_quality(&cinfo, quality, TRUE);
    cinfo.raw_data_in = TRUE;
    cinfo.dct_method = JDCT_IFAST;
    cinfo.comp_info[0].h_samp_factor = 2;
    cinfo.comp_info[0].v_samp_factor = 2;
    for (int c = 1; c < 3; ++c) {
        cinfo.comp_info[c].h_samp_factor = 1;
        cinfo.comp_info[c].v_samp_factor = 1;
    }
    jpeg_start_compress(&cinfo, TRUE);

    const int c_height = (pic.height + 1) / 2;
    JSAMPROW y_rows[16], cb_rows[8], cr_rows[8];
    JSAMPARRAY planes[3] = {y_rows, cb_rows, cr_rows};
    while (cinfo.next_scanline < cinfo.image_height) {
        const int y0 = static_cast<int>(cinfo.next_scanline);
        band(y_rows, 16, pic.y, pic.y_stride, y0, pic.height);
        band(cb_rows, 8, pic.cb, pic.c_stride, y0 / 2, c_height);
        band(cr_rows, 8, pic.cr, pic.c_stride, y0 / 2, c_height);
        jpeg_write_raw_data(&cinfo, planes, 16);
    }
    jpeg_finish_compress(&cinfo);
    out->assign(mem, mem + mem_len);
    jpeg_destroy_compress(&cinfo);
    std::free(mem);
    return true;
}
