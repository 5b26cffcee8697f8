// The simulated regions: the life cycle and its refusals, what a region
// keeps (attributes, display attributes, last bitmap), and how media.json
// and chip<T>/rgn/ show them.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "platform/hi_mpi_rgn.h"
#include "platform/sim/media_json.h"
#include "tests/support/media_board.h"

namespace {

using namespace std::chrono_literals;

constexpr int32_t rgn_err(uint32_t e) { return hi_err(HI_ID_RGN, e); }

constexpr rgn_attr_t overlay_attr(uint32_t w = 352, uint32_t h = 20)
{
    rgn_attr_t a{};
    a.type = OVERLAY_RGN;
    a.overlay = {PIXEL_FORMAT_RGB_1555, 0x7C1F, {w, h}};
    return a;
}

constexpr rgn_attr_t cover_attr()
{
    rgn_attr_t a{};
    a.type = COVER_RGN;
    return a;
}

rgn_chn_attr_t overlay_chn(int32_t x, int32_t y)
{
    rgn_chn_attr_t a{};
    a.show = 1;
    a.type = OVERLAY_RGN;
    a.overlay.x = x;
    a.overlay.y = y;
    a.overlay.bg_alpha = 128;
    return a;
}

rgn_chn_attr_t cover_chn(int32_t x, int32_t y, uint32_t w, uint32_t h, uint32_t layer)
{
    rgn_chn_attr_t a{};
    a.show = 1;
    a.type = COVER_RGN;
    a.cover = {x, y, w, h, 0, layer, {}};
    return a;
}

constexpr mpp_chn_t k_grp3{HI_ID_GROUP, 3, 0}, k_vi14{HI_ID_VI, 0, 14}, k_vi30{HI_ID_VI, 0, 30};

bool wait_for(const std::function<bool()>& done, std::chrono::milliseconds limit = 10s)
{
    for (auto end = std::chrono::steady_clock::now() + limit; std::chrono::steady_clock::now() < end;
         std::this_thread::sleep_for(10ms))
        if (done())
            return true;
    return done();
}

using sim_rgn_test = media_board_test;

TEST_F(sim_rgn_test, a_region_goes_through_create_attach_detach_destroy_and_refuses_the_wrong_order)
{
    const rgn_attr_t ov = overlay_attr(), cov = cover_attr();
    rgn_chn_attr_t oc = overlay_chn(20, 1048), cc = cover_chn(960, 540, 480, 268, 2);
    EXPECT_EQ(HI_MPI_RGN_Create(RGN_HANDLE_MAX, &ov), rgn_err(HI_ERR_INVALID_DEVID));
    EXPECT_EQ(HI_MPI_RGN_Create(67, nullptr), rgn_err(HI_ERR_NULL_PTR));
    for (rgn_attr_t bad : {overlay_attr(351, 20), overlay_attr(0, 20), overlay_attr(352, 5000)})
        EXPECT_EQ(HI_MPI_RGN_Create(67, &bad), rgn_err(HI_ERR_ILLEGAL_PARAM)) << bad.overlay.size.width;
    EXPECT_EQ(HI_MPI_RGN_Destroy(67), rgn_err(HI_ERR_UNEXIST));
    EXPECT_EQ(HI_MPI_RGN_DetachFrmChn(67, &k_grp3), rgn_err(HI_ERR_UNEXIST));

    ASSERT_EQ(HI_MPI_RGN_Create(67, &ov), 0);
    EXPECT_EQ(HI_MPI_RGN_Create(67, &cov), rgn_err(HI_ERR_EXIST));
    EXPECT_EQ(HI_MPI_RGN_DetachFrmChn(67, &k_grp3), rgn_err(HI_ERR_UNEXIST));  // not attached
    EXPECT_EQ(HI_MPI_RGN_SetDisplayAttr(67, &k_grp3, &oc), rgn_err(HI_ERR_UNEXIST));
    // An overlay goes on an encoder group, a cover on a capture channel, and
    // the display attributes are of the region's type.
    EXPECT_EQ(HI_MPI_RGN_AttachToChn(67, &k_vi14, &oc), rgn_err(HI_ERR_ILLEGAL_PARAM));
    EXPECT_EQ(HI_MPI_RGN_AttachToChn(67, &k_grp3, &cc), rgn_err(HI_ERR_ILLEGAL_PARAM));
    ASSERT_EQ(HI_MPI_RGN_AttachToChn(67, &k_grp3, &oc), 0);
    EXPECT_EQ(HI_MPI_RGN_AttachToChn(67, &k_grp3, &oc), rgn_err(HI_ERR_EXIST));
    EXPECT_EQ(HI_MPI_RGN_Destroy(67), rgn_err(HI_ERR_NOT_PERM));  // still attached
    oc.overlay.y = 544;
    ASSERT_EQ(HI_MPI_RGN_SetDisplayAttr(67, &k_grp3, &oc), 0);
    rgn_chn_attr_t got{};
    ASSERT_EQ(HI_MPI_RGN_GetDisplayAttr(67, &k_grp3, &got), 0);
    EXPECT_EQ(got.overlay.y, 544);
    const mpp_chn_t grp4{HI_ID_GROUP, 4, 0};
    EXPECT_EQ(HI_MPI_RGN_DetachFrmChn(67, &grp4), rgn_err(HI_ERR_UNEXIST));
    ASSERT_EQ(HI_MPI_RGN_DetachFrmChn(67, &k_grp3), 0);
    EXPECT_FALSE(sim_media_rgn(67).attached);
    ASSERT_EQ(HI_MPI_RGN_Destroy(67), 0);
    EXPECT_FALSE(sim_media_rgn(67).created);

    // A cover keeps its rectangle, colour and layer.
    ASSERT_EQ(HI_MPI_RGN_Create(18, &cov), 0);
    EXPECT_EQ(HI_MPI_RGN_AttachToChn(18, &k_vi30, &oc), rgn_err(HI_ERR_ILLEGAL_PARAM));
    rgn_chn_attr_t empty = cover_chn(0, 0, 0, 88, 2);
    EXPECT_EQ(HI_MPI_RGN_AttachToChn(18, &k_vi30, &empty), rgn_err(HI_ERR_ILLEGAL_PARAM));
    cc = cover_chn(320, 180, 160, 88, 2);
    ASSERT_EQ(HI_MPI_RGN_AttachToChn(18, &k_vi30, &cc), 0);
    sim_rgn r = sim_media_rgn(18);
    EXPECT_TRUE(r.created && r.attached && r.chn == k_vi30);
    EXPECT_EQ(r.chn_attr.cover.width, 160u);
    EXPECT_EQ(r.chn_attr.cover.layer, 2u);
    // Covers take no bitmap.
    std::vector<uint8_t> px(352 * 20 * 2, 1);
    bitmap_t bm{PIXEL_FORMAT_RGB_1555, 352, 20, px.data()};
    EXPECT_EQ(HI_MPI_RGN_SetBitMap(18, &bm), rgn_err(HI_ERR_NOT_SUPPORT));
}

TEST_F(sim_rgn_test, an_overlay_keeps_its_last_bitmap_and_the_board_shows_it)
{
    const rgn_attr_t ov = overlay_attr();
    const rgn_chn_attr_t oc = overlay_chn(20, 1048);
    ASSERT_TRUE(HI_MPI_RGN_Create(64, &ov) == 0 && HI_MPI_RGN_AttachToChn(64, &k_grp3, &oc) == 0);
    std::vector<uint8_t> px(352 * 20 * 2);
    for (size_t i = 0; i < px.size(); ++i)
        px[i] = static_cast<uint8_t>(i * 7);
    bitmap_t bm{PIXEL_FORMAT_RGB_1555, 352, 20, px.data()};
    // A bitmap wider than its region, with pixels enough for its own size.
    std::vector<uint8_t> wide(354 * 20 * 2);
    bitmap_t big{PIXEL_FORMAT_RGB_1555, 354, 20, wide.data()}, fmt{PIXEL_FORMAT_YUV_SEMIPLANAR_420, 352, 20, px.data()},
        null{PIXEL_FORMAT_RGB_1555, 352, 20, nullptr};
    EXPECT_EQ(HI_MPI_RGN_SetBitMap(64, &big), rgn_err(HI_ERR_ILLEGAL_PARAM));
    EXPECT_EQ(HI_MPI_RGN_SetBitMap(64, &fmt), rgn_err(HI_ERR_ILLEGAL_PARAM));
    EXPECT_EQ(HI_MPI_RGN_SetBitMap(64, &null), rgn_err(HI_ERR_NULL_PTR));
    EXPECT_EQ(HI_MPI_RGN_SetBitMap(65, &bm), rgn_err(HI_ERR_UNEXIST));
    ASSERT_EQ(HI_MPI_RGN_SetBitMap(64, &bm), 0);
    px.assign(px.size(), 0);  // the region holds its own copy
    sim_rgn r = sim_media_rgn(64);
    ASSERT_EQ(r.bitmap.size(), 352u * 20 * 2);
    EXPECT_EQ(r.bitmap[1], 7);
    EXPECT_EQ(r.bitmap_width, 352u);

    const std::string raw = chip_file("rgn/64.raw");
    ASSERT_TRUE(wait_for([&] { return read_file(raw).size() == 352u * 20 * 2; }));
    EXPECT_EQ(static_cast<uint8_t>(read_file(raw)[3]), 21);
    ASSERT_TRUE(wait_for([&] { return read_file(chip_file("media.json")).find("\"handle\": 64") != std::string::npos; }));
    const std::string json = read_file(chip_file("media.json"));
    EXPECT_NE(json.find("{\"handle\": 64, \"type\": 0, \"attached\": [6,3,0], \"show\": true, \"x\": 20, \"y\": 1048, "
                        "\"width\": 352, \"height\": 20, \"color\": 31775, \"layer\": 0, \"pixel_format\": 8"),
              std::string::npos)
        << json;
    EXPECT_NE(json.find("\"bitmap\": \"chip1/rgn/64.raw\""), std::string::npos) << json;

    // A new bitmap replaces the file.
    px.assign(px.size(), 0x55);
    ASSERT_EQ(HI_MPI_RGN_SetBitMap(64, &bm), 0);
    ASSERT_TRUE(wait_for([&] { return read_file(raw) == std::string(px.size(), '\x55'); }));
    // Destroyed, the region leaves media.json.
    ASSERT_TRUE(HI_MPI_RGN_DetachFrmChn(64, &k_grp3) == 0 && HI_MPI_RGN_Destroy(64) == 0);
    EXPECT_EQ(sim_media_json_text().find("\"handle\": 64"), std::string::npos);
}

}  // namespace
