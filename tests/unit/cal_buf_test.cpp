// Stream buffer pools: totals with their headers, the data run and the
// descriptor's wire image. The transmit threads' tests show the totals
// coming back to zero under concurrent use.
#include <gtest/gtest.h>

#include <cstring>

#include "cal/cal_buf.h"
#include "tests/support/test_board.h"

namespace {

class cal_buf_test : public board_test {};

TEST_F(cal_buf_test, totals_count_headers_and_negative_sizes_are_fatal)
{
    ebuf_t* e = ebuf_malloc(0x100000);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(e) % 16, 0u);
    EXPECT_EQ(ebuf_get_total_size(), 0x100000 + 22104);
    EXPECT_TRUE(e->buf_size == 0x100000 && e->buf_off == 0 && e->num_mmd == 0);
    dbuf_t* d = dbuf_malloc(1000);
    EXPECT_EQ(dbuf_get_total_size(), 13008);
    dbuf_data(d)[999] = 1;  // the data run past the header's declared end
    ebuf_free(e);
    dbuf_free(d);
    EXPECT_EQ(ebuf_get_total_size() + ebuf_get_cnt() + dbuf_get_total_size(), 0);
    EXPECT_FATAL(nbuf_malloc(-1), "buf_size<0");
}

TEST_F(cal_buf_test, network_descriptor_wire_image_is_28_bytes_with_the_low_address_bits)
{
    nbuf_desc_t d{2024, 12, 31, 86399999, 0, 1, 1920, 1080, 30, 1, 2, 0, 0x12345, nullptr};
    d.data = reinterpret_cast<unsigned char*>(uintptr_t{0xCAFE0010});
    unsigned char w[28];
    nbuf_desc_to_wire(d, w);
    const unsigned char expect[28] = {0xE8, 0x07, 12, 31, 0xFF, 0x5B, 0x26, 0x05, 0, 0, 1, 0, 0x80, 0x07,
                                      0x38, 0x04, 30, 1, 2, 0, 0x45, 0x23, 0x01, 0, 0x10, 0, 0xFE, 0xCA};
    EXPECT_EQ(std::memcmp(w, expect, 28), 0);
}

}  // namespace
