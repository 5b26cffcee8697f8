// Writes the seed corpora of the fuzz targets: commands as the master sends
// them on the command port (one of each kind the slave answers, with the
// values a recorder uses) and playback transfers with records laid out as
// the master lays them out.
//
//   make_corpus <dir>   writes <dir>/fuzz_cmd/* and <dir>/fuzz_dec_intake/*
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <string>
#include <vector>

#include "cal/cal_buf.h"
#include "cal/cal_mod.h"
#include "dec/cal_dec.h"
#include "enc/cal_enc.h"
#include "msg/cal_hsc.h"
#include "vin/cal_vin.h"
#include "vout/cal_vout.h"

namespace {

using bytes = std::vector<uint8_t>;

template <class T>
bytes of(const T& v)
{
    bytes b(sizeof(T));
    std::memcpy(b.data(), &v, sizeof(T));
    return b;
}

bytes words(std::initializer_list<int32_t> w)
{
    bytes b(w.size() * 4);
    if (w.size() > 0)
        std::memcpy(b.data(), w.begin(), b.size());
    return b;
}

// A command message: the header, then the payload.
bytes message(uint32_t cmd, const bytes& payload)
{
    const uint32_t head[4] = {7, cmd, static_cast<uint32_t>(payload.size()), 0};
    bytes m(sizeof(head));
    std::memcpy(m.data(), head, sizeof(head));
    m.insert(m.end(), payload.begin(), payload.end());
    return m;
}

bool write(const std::filesystem::path& path, const bytes& b)
{
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
    return static_cast<bool>(out);
}

std::vector<std::pair<std::string, bytes>> commands()
{
    std::vector<std::pair<std::string, bytes>> out;
    hsc_dma_info_t dma{0, {0x10000000, 0x10200000, 0x10400000, 0x10600000}};
    out.emplace_back("set_dma_info", message(HSCC_CAL_SetDmaInfo, of(dma)));
    const char tz[] = "CET-1CEST,M3.5.0,M10.5.0/3";
    out.emplace_back("set_tz", message(HSCC_CAL_SetTz, bytes(tz, tz + sizeof(tz))));
    out.emplace_back("get_dma_info", message(HSCC_CAL_GetDmaInfo, {}));
    out.emplace_back("get_status", message(HSCC_CAL_GetStatus, {}));
    out.emplace_back("set_vl", message(HSCC_CAL_SetVl, words({9})));
    out.emplace_back("set_time", message(HSCC_CAL_SetTime, of<uint64_t>(1795000000000000ull)));

    vin_set_caps_cmd_t caps{8, 1920, 1080, 1, 25.0, 0, 0};
    out.emplace_back("set_vincaps", message(HSCC_CAL_SetVincaps, of(caps)));
    out.emplace_back("set_md", message(HSCC_CAL_SetMd, of(vin_set_md_cmd_t{10, 128})));
    vin_set_privacy_cmd_t privacy{11, 1, 0.25, 0.25, 0.5, 0.5};
    out.emplace_back("set_privacy", message(HSCC_CAL_SetPrivacy, of(privacy)));

    enc_set_video_cmd_t video{};
    video.kind = 0;
    video.fps = 25.0f;
    video.width = 704;
    video.height = 576;
    video.cam = 8;
    video.quality = 2;
    out.emplace_back("set_enc_video", message(HSCC_CAL_SetEncVideo, of(video)));
    out.emplace_back("run_enc_video", message(HSCC_CAL_RunEncVideo, of(enc_run_video_cmd_t{0, 8, 1, 0})));
    enc_update_cmd_t update{};
    update.sync = 1;
    update.fps = 25;
    update.t = 1795000000000000ull;
    out.emplace_back("update_enc_video", message(HSCC_CAL_UpdatEncVideo, of(update)));
    bytes avc = of<int16_t>(2);
    for (int16_t v : {704, 576, 352, 288})
        avc.insert(avc.end(), {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8)});
    out.emplace_back("avcres", message(HSCC_CAL_3531_avcres, avc));
    out.emplace_back("set_timestamp", message(HSCC_CAL_SetTimestamp, words({1, 2, 0})));
    out.emplace_back("set_time_font", message(HSCC_CAL_SetTimeFont + 3, bytes(64, 0x5a)));
    out.emplace_back("playjpg", message(HSCC_CAL_3531_playjpg, words({1})));

    out.emplace_back("decstart", message(HSCC_CAL_3531_decstart, words({1, 0})));
    out.emplace_back("decstop", message(HSCC_CAL_3531_decstart, words({0, 0})));
    out.emplace_back("flush", message(HSCC_CAL_3531_flush, words({0, 0, 9})));

    vout_layout_t layout{};
    layout.cells = 4;
    for (int i = 0; i < 4; ++i)
        layout.cell[i] = {0, static_cast<int16_t>(8 + i), static_cast<int16_t>(960 * (i % 2)),
                          static_cast<int16_t>(540 * (i / 2)), 960, 540};
    bytes lay = of(layout);
    lay.resize(VOUT_LAYOUT_HEAD_LEN + 4 * sizeof(vout_cell_t));
    out.emplace_back("set_layout", message(HSCC_CAL_SetLayout, lay));
    out.emplace_back("set_zoom", message(HSCC_CAL_SetZoom, of(vout_zoom_t{8, 0, 0, 0, 100, 50, 640, 360})));
    vout_pciv_init_t pciv{};
    pciv.kind = VOUT_PCIV_MAIN;
    pciv.chn = 0;
    pciv.live = 1;
    pciv.attr.pic_attr = {1920, 1080, {1920, 1920}, 0, 0};
    pciv.attr.blk_size = 1920 * 1080 * 3 / 2;
    pciv.attr.count = 2;
    pciv.attr.phy_addr[0] = 0x10800000;
    pciv.attr.phy_addr[1] = 0x10b20000;
    out.emplace_back("init_pciv_vo", message(HSCC_CAL_InitPcivVo, of(pciv)));
    out.emplace_back("start_pciv_vo", message(HSCC_CAL_StartPcivVo, words({0})));
    out.emplace_back("stop_pciv_vo", message(HSCC_CAL_StopPcivVo, words({0})));
    return out;
}

// A record of n frames of cameras 8.. with len bytes each, as the master
// lays it out.
bytes record(int n, int len, int skip_show)
{
    bytes b(DBUF_HEADER_SIZE + static_cast<size_t>(n * len));
    dbuf_t d{};
    d.num_vdec = n;
    for (int i = 0; i < n; ++i) {
        d.cam[i] = 8 + i;
        d.key[i] = i == 0;
        d.show[i] = 1;
        d.len[i] = len;
        d.off[i] = i * len;
        d.width[i] = 704;
        d.height[i] = 576;
        d.fps[i] = 25;
        d.quality[i] = 2;
    }
    d.buf_off = n * len;
    d.buf_size = n * len;
    d.skip_show = skip_show;
    std::memcpy(b.data(), &d, DBUF_HEADER_SIZE);
    for (int i = 0; i < n * len; ++i)
        b[DBUF_HEADER_SIZE + static_cast<size_t>(i)] = static_cast<uint8_t>(i % 4 == 3 ? 1 : 0);
    return b;
}

// An intake input: flags (bit 0: two records), the byte count as sent,
// the second record's offset, then the pulled bytes.
bytes transfer(bool two, const bytes& pulled, uint32_t second)
{
    bytes b = words({two ? 3 : 2, static_cast<int32_t>(pulled.size()), static_cast<int32_t>(second)});
    b.insert(b.end(), pulled.begin(), pulled.end());
    return b;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <dir>\n", argv[0]);
        return 2;
    }
    const std::filesystem::path dir = argv[1];
    std::filesystem::create_directories(dir / "fuzz_cmd");
    std::filesystem::create_directories(dir / "fuzz_dec_intake");
    bool ok = true;
    for (const auto& [name, msg] : commands())
        ok = write(dir / "fuzz_cmd" / name, msg) && ok;

    ok = write(dir / "fuzz_dec_intake" / "one_record", transfer(false, record(2, 16, 0), 0)) && ok;
    const bytes first = record(1, 32, 1);
    bytes both = first;
    const bytes second = record(3, 8, 0);
    both.insert(both.end(), second.begin(), second.end());
    ok = write(dir / "fuzz_dec_intake" / "two_records", transfer(true, both, static_cast<uint32_t>(first.size()))) && ok;
    return ok ? 0 : 1;
}
