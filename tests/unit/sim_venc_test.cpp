// Simulated encoder groups and channels: the life cycle and its refusals,
// attributes kept, the select descriptor, and the stream buffer's wrap and
// drops.
#include <gtest/gtest.h>
#include <poll.h>

#include <cstring>
#include <string>
#include <vector>

#include "platform/hi_mpi_venc.h"
#include "platform/sim/venc_ring.h"
#include "tests/support/media_board.h"

namespace {

constexpr int32_t venc_err(uint32_t e) { return hi_err(HI_ID_VENC, e); }

venc_chn_attr_t h264_attr(uint32_t w, uint32_t h, uint32_t fps = 30, uint32_t kbps = 256)
{
    venc_chn_attr_t a{};
    a.payload_type = PT_H264;
    a.h264 = {w, h, (w * h / 4) * 3, 2, 1, 0, 1, 0, 0, w, h};
    a.rc = {VENC_RC_MODE_H264AVBR, 12, 5, fps, fps, kbps, 2};
    return a;
}

bool readable(int fd)
{
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, 0) == 1;
}

class sim_venc_test : public media_board_test {};

TEST_F(sim_venc_test, channel_life_cycle_follows_the_hardware_order)
{
    venc_chn_attr_t attr = h264_attr(176, 144);
    EXPECT_EQ(HI_MPI_VENC_RegisterChn(3, 3), venc_err(HI_ERR_UNEXIST));
    ASSERT_EQ(HI_MPI_VENC_CreateGroup(3), 0);
    EXPECT_EQ(HI_MPI_VENC_CreateGroup(3), static_cast<int32_t>(0xA0078004));
    EXPECT_EQ(HI_MPI_VENC_CreateChn(144, &attr), venc_err(HI_ERR_INVALID_CHNID));
    EXPECT_EQ(HI_MPI_VENC_CreateChn(3, nullptr), venc_err(HI_ERR_NULL_PTR));
    ASSERT_EQ(HI_MPI_VENC_CreateChn(3, &attr), 0);
    EXPECT_EQ(HI_MPI_VENC_CreateChn(3, &attr), venc_err(HI_ERR_EXIST));
    EXPECT_EQ(HI_MPI_VENC_StartRecvPic(3), venc_err(HI_ERR_NOT_PERM));  // not registered
    EXPECT_EQ(HI_MPI_VENC_SetH264eRefMode(3, 5), 0);
    ASSERT_EQ(HI_MPI_VENC_RegisterChn(3, 3), 0);
    EXPECT_EQ(HI_MPI_VENC_RegisterChn(3, 3), venc_err(HI_ERR_EXIST));
    ASSERT_EQ(HI_MPI_VENC_StartRecvPic(3), 0);

    EXPECT_EQ(HI_MPI_VENC_UnRegisterChn(3), venc_err(HI_ERR_NOT_PERM));  // still receiving
    EXPECT_EQ(HI_MPI_VENC_DestroyChn(3), venc_err(HI_ERR_NOT_PERM));     // still registered
    EXPECT_EQ(HI_MPI_VENC_DestroyGroup(3), venc_err(HI_ERR_NOT_PERM));   // a channel is registered
    ASSERT_EQ(HI_MPI_VENC_StopRecvPic(3), 0);
    ASSERT_EQ(HI_MPI_VENC_UnRegisterChn(3), 0);
    ASSERT_EQ(HI_MPI_VENC_DestroyChn(3), 0);
    ASSERT_EQ(HI_MPI_VENC_DestroyGroup(3), 0);
    EXPECT_EQ(HI_MPI_VENC_GetFd(3), venc_err(HI_ERR_UNEXIST));
    EXPECT_FALSE(sim_media_venc_chn(3).created || sim_media_venc_grp(3).created);
}

TEST_F(sim_venc_test, attributes_are_checked_kept_and_read_back)
{
    venc_chn_attr_t attr = h264_attr(704, 576, 15, 977), got{};
    for (auto bad : {+[](venc_chn_attr_t& a) { a.payload_type = 33; }, +[](venc_chn_attr_t& a) { a.h264.pic_width = 706; },
                     +[](venc_chn_attr_t& a) { a.rc.target_frm_rate = 31; }, +[](venc_chn_attr_t& a) { a.rc.gop = 0; },
                     +[](venc_chn_attr_t& a) { a.h264.buf_size = 0; }}) {
        venc_chn_attr_t b = attr;
        bad(b);
        EXPECT_NE(HI_MPI_VENC_CreateChn(7, &b), 0);
    }
    ASSERT_EQ(HI_MPI_VENC_CreateChn(7, &attr), 0);
    ASSERT_EQ(HI_MPI_VENC_GetChnAttr(7, &got), 0);
    EXPECT_EQ(std::memcmp(&got, &attr, sizeof attr), 0);
    attr.rc.bit_rate = 500;
    ASSERT_EQ(HI_MPI_VENC_SetChnAttr(7, &attr), 0);
    ASSERT_EQ(HI_MPI_VENC_GetChnAttr(7, &got), 0);
    EXPECT_EQ(got.rc.bit_rate, 500u);

    // The picture size changes only while the channel does not receive.
    ASSERT_TRUE(HI_MPI_VENC_CreateGroup(7) == 0 && HI_MPI_VENC_RegisterChn(7, 7) == 0 &&
                HI_MPI_VENC_StartRecvPic(7) == 0);
    venc_chn_attr_t big = h264_attr(1920, 1080);
    EXPECT_EQ(HI_MPI_VENC_SetChnAttr(7, &big), venc_err(HI_ERR_NOT_PERM));
    ASSERT_EQ(HI_MPI_VENC_StopRecvPic(7), 0);
    EXPECT_EQ(HI_MPI_VENC_SetChnAttr(7, &big), 0);

    venc_grp_frm_rate_t rate{30, 15}, back{}, up{15, 30};
    EXPECT_EQ(HI_MPI_VENC_SetGrpFrmRate(7, &up), venc_err(HI_ERR_ILLEGAL_PARAM));
    ASSERT_EQ(HI_MPI_VENC_SetGrpFrmRate(7, &rate), 0);
    ASSERT_EQ(HI_MPI_VENC_GetGrpFrmRate(7, &back), 0);
    EXPECT_EQ(back.target_frm_rate, 15);

    // JPEG parameters belong to JPEG channels.
    venc_param_jpeg_t q{};
    EXPECT_EQ(HI_MPI_VENC_GetJpegParam(7, &q), venc_err(HI_ERR_NOT_SUPPORT));
    venc_chn_attr_t jpeg{};
    jpeg.payload_type = PT_JPEG;
    jpeg.jpeg = {704, 576, 704 * 576, 1, 0, 0, 704, 576};
    ASSERT_EQ(HI_MPI_VENC_CreateChn(40, &jpeg), 0);
    EXPECT_EQ(HI_MPI_VENC_SetH264eRefMode(40, 5), venc_err(HI_ERR_NOT_SUPPORT));
    venc_param_jpeg_t set{70, 0}, bad{100, 0};
    EXPECT_EQ(HI_MPI_VENC_SetJpegParam(40, &bad), venc_err(HI_ERR_ILLEGAL_PARAM));
    ASSERT_EQ(HI_MPI_VENC_SetJpegParam(40, &set), 0);
    ASSERT_EQ(HI_MPI_VENC_GetJpegParam(40, &q), 0);
    EXPECT_EQ(q.qfactor, 70u);
}

TEST_F(sim_venc_test, an_idle_channel_has_a_quiet_descriptor_and_an_empty_stream)
{
    venc_chn_attr_t attr = h264_attr(64, 64);
    ASSERT_EQ(HI_MPI_VENC_CreateChn(0, &attr), 0);
    int fd = HI_MPI_VENC_GetFd(0);
    ASSERT_GT(fd, 0);
    EXPECT_FALSE(readable(fd));
    venc_chn_stat_t st{};
    ASSERT_EQ(HI_MPI_VENC_Query(0, &st), 0);
    EXPECT_EQ(st.cur_packs, 0u);
    venc_pack_t packs[4];
    venc_stream_t s{packs, 4, 0};
    EXPECT_EQ(HI_MPI_VENC_GetStream(0, &s, false), venc_err(HI_ERR_BUF_EMPTY));
    EXPECT_EQ(HI_MPI_VENC_ReleaseStream(0, &s), venc_err(HI_ERR_ILLEGAL_PARAM));  // nothing was read
    s.pack = nullptr;
    EXPECT_EQ(HI_MPI_VENC_GetStream(0, &s, false), venc_err(HI_ERR_NULL_PTR));
}

TEST_F(sim_venc_test, every_new_operation_can_be_failed)
{
    reopen_media("HI_MPI_VENC_GetStream=a0078012,HI_MPI_VENC_CreateChn@2=a007800c");
    venc_chn_attr_t attr = h264_attr(64, 64);
    ASSERT_EQ(HI_MPI_VENC_CreateChn(0, &attr), 0);
    EXPECT_EQ(HI_MPI_VENC_CreateChn(1, &attr), venc_err(HI_ERR_NOMEM));
    EXPECT_FALSE(sim_media_venc_chn(1).created);  // without any effect
    EXPECT_EQ(HI_MPI_VENC_CreateChn(1, &attr), 0);
    venc_pack_t packs[4];
    venc_stream_t s{packs, 4, 0};
    EXPECT_EQ(HI_MPI_VENC_GetStream(0, &s, false), venc_err(HI_ERR_BUSY));
}

// ---- the stream buffer ------------------------------------------------------------

std::vector<uint8_t> bytes(size_t n, uint8_t first)
{
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i)
        v[i] = static_cast<uint8_t>(first + i);
    return v;
}

std::vector<uint8_t> joined(const venc_pack_t& p)
{
    std::vector<uint8_t> v(p.addr[0], p.addr[0] + p.len[0]);
    if (p.len[1] != 0)
        v.insert(v.end(), p.addr[1], p.addr[1] + p.len[1]);
    return v;
}

TEST(sim_venc_ring_test, a_pack_across_the_end_comes_in_two_pieces_and_a_full_ring_drops)
{
    sim_venc_ring ring(100);
    auto sei = bytes(10, 0), slice = bytes(50, 100);
    sim_pack_in au[2] = {{{sei, {}}, H264E_NALU_SEI}, {{slice, {}}, H264E_NALU_PSLICE}};
    ASSERT_TRUE(ring.put(au, 11, 0));  // bytes 0 .. 59
    EXPECT_TRUE(readable(ring.fd()));
    EXPECT_FALSE(ring.put(au, 12, 1));  // 60 more do not fit in 40
    EXPECT_EQ(ring.dropped(), 1u);

    venc_pack_t packs[2];
    venc_stream_t s{packs, 1, 0};
    EXPECT_EQ(ring.get(&s, false), HI_ERR_ILLEGAL_PARAM);  // too few pack records
    s.pack_count = 2;
    ASSERT_EQ(ring.get(&s, false), 0u);
    EXPECT_FALSE(readable(ring.fd()));
    EXPECT_TRUE(s.seq == 0 && packs[0].pts == 11 && packs[1].frame_end == 1 && packs[0].frame_end == 0);
    ASSERT_EQ(ring.release(&s), 0u);

    // After the drop a P picture is not taken though it fits (it refers to
    // the dropped one); the next IDR picture is.
    EXPECT_FALSE(ring.put(au, 13, 2));
    EXPECT_EQ(ring.dropped(), 2u);
    auto sps = bytes(10, 200);
    sim_pack_in idr[2] = {{{sps, {}}, H264E_NALU_SPS}, {{slice, {}}, H264E_NALU_ISLICE}};
    ASSERT_TRUE(ring.put(idr, 14, 3));  // bytes 60 .. 99, then 0 .. 19: the slice wraps
    auto small = bytes(10, 50);
    sim_pack_in p_after[2] = {{{sei, {}}, H264E_NALU_SEI}, {{small, {}}, H264E_NALU_PSLICE}};
    ASSERT_TRUE(ring.put(p_after, 15, 4));  // and P pictures follow it again
    ASSERT_EQ(ring.get(&s, false), 0u);
    EXPECT_EQ(s.seq, 3u);
    EXPECT_EQ(packs[1].len[0], 30u);
    EXPECT_EQ(packs[1].len[1], 20u);
    EXPECT_EQ(joined(packs[1]), slice);
    EXPECT_EQ(joined(packs[0]), sps);
    venc_stream_t other = s;
    other.seq = 7;
    EXPECT_EQ(ring.release(&other), HI_ERR_ILLEGAL_PARAM);
    EXPECT_EQ(ring.release(&s), 0u);
    ASSERT_EQ(ring.get(&s, false), 0u);
    EXPECT_EQ(s.seq, 4u);
    EXPECT_EQ(ring.release(&s), 0u);
    EXPECT_EQ(ring.stat().left_stream_bytes, 0u);
}

}  // namespace
