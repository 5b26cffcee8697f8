// OpenH264's decoder, one instance per decoder channel, fed whole access
// units and asked for the picture each completes at once (the streams have
// no B pictures, so nothing waits for reordering).
#include "platform/sim/h264_decode.h"

#include <wels/codec_api.h>

namespace {

class openh264_decoder final : public sim_h264_decoder {
public:
    explicit openh264_decoder(ISVCDecoder* d) : d_(d) {}
    ~openh264_decoder() override
    {
        d_->Uninitialize();
        WelsDestroyDecoder(d_);
    }
    openh264_decoder(const openh264_decoder&) = delete;
    openh264_decoder& operator=(const openh264_decoder&) = delete;

    bool decode(std::span<const uint8_t> au, sim_h264_picture* pic) override
    {
        unsigned char* planes[3] = {};
        SBufferInfo info{};
        DECODING_STATE s = d_->DecodeFrameNoDelay(au.data(), static_cast<int>(au.size()), planes, &info);
        if (s != dsErrorFree || info.iBufferStatus != 1)
            return false;
        pic->width = static_cast<uint32_t>(info.UsrData.sSystemBuffer.iWidth);
        pic->height = static_cast<uint32_t>(info.UsrData.sSystemBuffer.iHeight);
        return true;
    }

private:
    ISVCDecoder* d_;
};

}  // namespace

bool sim_h264_decoder_available()
{
    return true;
}

std::unique_ptr<sim_h264_decoder> sim_h264_decoder_new()
{
    ISVCDecoder* raw = nullptr;
    if (WelsCreateDecoder(&raw) != 0 || raw == nullptr)
        return nullptr;
    int quiet = WELS_LOG_QUIET;
    raw->SetOption(DECODER_OPTION_TRACE_LEVEL, &quiet);
    SDecodingParam p{};
    p.eEcActiveIdc = ERROR_CON_DISABLE;
    p.sVideoProperty.eVideoBsType = VIDEO_BITSTREAM_AVC;
    if (raw->Initialize(&p) != 0) {
        WelsDestroyDecoder(raw);
        return nullptr;
    }
    return std::make_unique<openh264_decoder>(raw);
}
