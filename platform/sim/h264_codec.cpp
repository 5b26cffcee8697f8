// The scene loops' H.264 encoder: OpenH264, one slice per picture, an IDR
// picture every GOP, its bit-rate control aimed at the channel's rate. A
// synthetic scene compresses far better than a camera's, so what the
// encoder leaves short of the rate is made up with filler-data NAL units
// after the slices; a loop that comes out too large is encoded again aimed
// lower.
#include "platform/sim/h264_codec.h"

#include <wels/codec_api.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "platform/sim/h264_sei.h"
#include "platform/sim/scene.h"

namespace {

constexpr uint8_t k_nal_filler = 12;
constexpr size_t k_start_code = 4;
// Filler NAL unit overhead: start code, header, trailing bits.
constexpr size_t k_filler_overhead = k_start_code + 2;

struct encoder_deleter {
    void operator()(ISVCEncoder* e) const
    {
        e->Uninitialize();
        WelsDestroySVCEncoder(e);
    }
};
using encoder_ptr = std::unique_ptr<ISVCEncoder, encoder_deleter>;

encoder_ptr open_encoder(const sim_loop_key& key, int bps)
{
    ISVCEncoder* raw = nullptr;
    if (WelsCreateSVCEncoder(&raw) != 0 || raw == nullptr)
        return nullptr;
    SEncParamExt p;
    raw->GetDefaultParams(&p);
    const float fps = static_cast<float>(key.mfps) / 1000.0f;
    p.iUsageType = CAMERA_VIDEO_REAL_TIME;
    p.iPicWidth = static_cast<int>(key.width);
    p.iPicHeight = static_cast<int>(key.height);
    p.iTargetBitrate = bps;
    p.iMaxBitrate = UNSPECIFIED_BIT_RATE;
    p.iRCMode = RC_BITRATE_MODE;
    p.fMaxFrameRate = fps;
    p.iTemporalLayerNum = 1;
    p.iSpatialLayerNum = 1;
    p.uiIntraPeriod = key.gop;
    p.iNumRefFrame = 1;
    p.eSpsPpsIdStrategy = CONSTANT_ID;
    p.bEnableFrameSkip = false;
    p.bEnableSceneChangeDetect = false;
    p.bEnableBackgroundDetection = false;
    p.iMultipleThreadIdc = 1;
    p.iEntropyCodingModeFlag = 0;
    p.iComplexityMode = LOW_COMPLEXITY;
    SSpatialLayerConfig& l = p.sSpatialLayers[0];
    l.iVideoWidth = p.iPicWidth;
    l.iVideoHeight = p.iPicHeight;
    l.fFrameRate = fps;
    l.iSpatialBitrate = bps;
    l.iMaxSpatialBitrate = UNSPECIFIED_BIT_RATE;
    l.sSliceArgument.uiSliceMode = SM_SINGLE_SLICE;
    encoder_ptr enc(raw);
    int quiet = WELS_LOG_QUIET;
    raw->SetOption(ENCODER_OPTION_TRACE_LEVEL, &quiet);
    if (raw->InitializeExt(&p) != 0)
        return nullptr;
    int format = videoFormatI420;
    raw->SetOption(ENCODER_OPTION_DATAFORMAT, &format);
    return enc;
}

// One encoded picture: its NAL units, each with a 4-byte start code.
struct coded_au {
    bool idr = false;
    std::vector<uint8_t> sps, pps, slice;
};

bool encode_all(const sim_loop_key& key, int bps, std::vector<coded_au>* out)
{
    encoder_ptr enc = open_encoder(key, bps);
    if (enc == nullptr)
        return false;
    const int w = static_cast<int>(key.width), h = static_cast<int>(key.height);
    const int cw = (w + 1) / 2, ch = (h + 1) / 2;
    std::vector<uint8_t> yuv(static_cast<size_t>(w) * h + 2 * static_cast<size_t>(cw) * ch);
    sim_picture pic{w, h, yuv.data(), w, yuv.data() + w * h, yuv.data() + w * h + cw * ch, cw, 1};
    const uint32_t frames = sim_loop_frames(key);
    const sim_scene_painter painter(key.camera, key.scene, w, h, key.textured);
    out->assign(frames, {});
    for (uint32_t i = 0; i < frames; ++i) {
        int64_t t_us = static_cast<int64_t>(i) * 1000000000 / key.mfps;
        painter.render(t_us, pic);
        sim_cover_paint(key.cover_rects, pic);
        SSourcePicture src{};
        src.iColorFormat = videoFormatI420;
        src.iPicWidth = w;
        src.iPicHeight = h;
        src.iStride[0] = w;
        src.iStride[1] = src.iStride[2] = cw;
        src.pData[0] = pic.y;
        src.pData[1] = pic.cb;
        src.pData[2] = pic.cr;
        src.uiTimeStamp = t_us / 1000;
        if (i % key.gop == 0)
            enc->ForceIntraFrame(true);
        SFrameBSInfo info{};
        if (enc->EncodeFrame(&src, &info) != cmResultSuccess || info.eFrameType == videoFrameTypeSkip ||
            info.eFrameType == videoFrameTypeInvalid)
            return false;
        coded_au& au = (*out)[i];
        for (int l = 0; l < info.iLayerNum; ++l) {
            const SLayerBSInfo& layer = info.sLayerInfo[l];
            const uint8_t* p = layer.pBsBuf;
            for (int n = 0; n < layer.iNalCount; ++n) {
                const size_t len = static_cast<size_t>(layer.pNalLengthInByte[n]);
                // Every NAL unit starts with a start code of 3 or 4 bytes.
                const bool sc3 = len > 3 && p[0] == 0 && p[1] == 0 && p[2] == 1;
                const bool sc4 = len > 4 && p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 1;
                if (!sc3 && !sc4)
                    return false;
                const size_t sc = sc3 ? 3 : 4;
                const uint8_t type = p[sc] & 0x1F;
                std::vector<uint8_t>* dst = type == 7 ? &au.sps : type == 8 ? &au.pps : &au.slice;
                if (type == 5)
                    au.idr = true;
                if (sc == 3)
                    dst->push_back(0);
                dst->insert(dst->end(), p, p + len);
                p += len;
            }
        }
        if (au.slice.empty() || au.idr != (i % key.gop == 0) || au.idr == au.sps.empty())
            return false;
    }
    return true;
}

size_t coded_bytes(const std::vector<coded_au>& aus)
{
    size_t n = 0;
    for (const coded_au& au : aus)
        n += au.sps.size() + au.pps.size() + au.slice.size();
    return n;
}

void append_filler(std::vector<uint8_t>& slice, size_t bytes)
{
    static constexpr uint8_t head[] = {0, 0, 0, 1, k_nal_filler};
    slice.insert(slice.end(), std::begin(head), std::end(head));
    slice.insert(slice.end(), bytes - k_filler_overhead, 0xFF);
    slice.push_back(0x80);
}

}  // namespace

bool sim_h264_codec_available()
{
    return true;
}

bool sim_h264_encode(const sim_loop_key& key, sim_h264_loop* loop)
{
    const uint32_t frames = sim_loop_frames(key);
    if (frames == 0 || key.width == 0 || key.height == 0 || key.kbps == 0 || key.camera < 0)
        return false;
    // What the loop should hold: the channel's rate over its length, less the
    // SEI each access unit carries live.
    const double seconds = frames * 1000.0 / key.mfps;
    const double target = key.kbps * 1000.0 / 8.0 * seconds - static_cast<double>(frames) * SIM_SEI_PLAIN;
    std::vector<coded_au> aus;
    int bps = static_cast<int>(key.kbps * 1000);
    for (int attempt = 0;; ++attempt) {
        if (!encode_all(key, bps, &aus))
            return false;
        const double got = static_cast<double>(coded_bytes(aus));
        if (got <= target * 1.05 || attempt == 3)
            break;
        bps = std::max(1000, static_cast<int>(bps * target / got * 0.95));
    }
    // Spread what is missing evenly over the pictures.
    const double missing = target - static_cast<double>(coded_bytes(aus));
    const size_t per_au = missing > 0 ? static_cast<size_t>(missing / frames) : 0;

    loop->key = key;
    loop->aus.clear();
    loop->data.clear();
    for (coded_au& au : aus) {
        if (per_au > k_filler_overhead)
            append_filler(au.slice, per_au);
        sim_loop_au rec{};
        rec.idr = au.idr;
        const std::vector<uint8_t>* parts[] = {&au.sps, &au.pps, &au.slice};
        for (int p = 0; p < sim_loop_au::PARTS; ++p) {
            rec.off[p] = static_cast<uint32_t>(loop->data.size());
            rec.len[p] = static_cast<uint32_t>(parts[p]->size());
            loop->data.insert(loop->data.end(), parts[p]->begin(), parts[p]->end());
        }
        loop->aus.push_back(rec);
    }
    return true;
}
