// Stream buffer pools: totals, header set-up, alignment, dumps, the
// descriptor's wire image, and the totals under concurrent use.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "cal/cal_buf.h"
#include "cal/cal_log.h"
#include "tests/support/test_board.h"

namespace {

using ::testing::HasSubstr;

class cal_buf_test : public board_test {};

TEST_F(cal_buf_test, totals_follow_allocation_and_release)
{
    ebuf_t* e = ebuf_malloc(0x100000);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(e) % 16, 0u);
    EXPECT_EQ(ebuf_get_total_size(), 0x100000 + 22104);
    EXPECT_EQ(ebuf_get_cnt(), 1);
    EXPECT_EQ(e->buf_size, 0x100000);
    EXPECT_EQ(e->buf_off + e->num_mmd, 0);
    ebuf_free(e);
    ebuf_free(nullptr);
    EXPECT_EQ(ebuf_get_total_size() + ebuf_get_cnt(), 0);

    unsigned char* b = nbuf_malloc(500);
    nbuf_free(nullptr, 500);
    EXPECT_EQ(nbuf_get_total_size(), 500);
    nbuf_free(b, 500);
    EXPECT_EQ(nbuf_get_total_size() + nbuf_get_cnt(), 0);

    dbuf_t* d = dbuf_malloc(1000);
    EXPECT_EQ(dbuf_get_total_size(), 13008);
    EXPECT_EQ(d->buf_size, 1000);
    dbuf_data(d)[999] = 1;  // the data run past the header's declared end
    dbuf_free(d);
    EXPECT_EQ(dbuf_get_total_size(), 0);

    EXPECT_FATAL(ebuf_malloc(-1), "buf_size<0");
    EXPECT_FATAL(nbuf_malloc(-1), "buf_size<0");
    EXPECT_FATAL(dbuf_malloc(-1), "buf_size<0");
}

TEST_F(cal_buf_test, dumps_print_buffer_and_totals)
{
    ebuf_t* e = ebuf_malloc(64);
    e->num_mmd = 3;
    e->buf_off = 40;
    stdout_capture out;
    ebuf_dump(e);
    ebuf_dump();
    dbuf_dump();
    char head[64];
    std::snprintf(head, sizeof(head), "> ========= ebuf:%08x ==========\n", ptr32(e));
    for (const char* line : {static_cast<const char*>(head), "> num_mmd:3\n", "> buf_off:40\n", "> buf_size:64\n",
                             "> =================================\n", "> ebuf_total_size:22168 ebuf_cnt:1\n",
                             "> cnt:0 dbuf_total_size:0\n"})
        EXPECT_THAT(out.text(), HasSubstr(line));
    ebuf_free(e);
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

TEST_F(cal_buf_test, totals_stay_exact_under_concurrent_producers_and_consumers)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 2000; ++i) {
                ebuf_free(ebuf_malloc(i));
                nbuf_free(nbuf_malloc(i), i);
                dbuf_free(dbuf_malloc(i));
            }
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(ebuf_get_total_size() + ebuf_get_cnt() + nbuf_get_total_size() + dbuf_get_total_size(), 0);
}

}  // namespace
