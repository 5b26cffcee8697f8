#include "tests/support/h264_decode.h"

#ifdef TARVO_SIM_OPENH264

#include <wels/codec_api.h>

#include <fstream>
#include <iterator>
#include <vector>

struct h264_decoder::impl {
    ISVCDecoder* dec = nullptr;
};

h264_decoder::h264_decoder() : d_(new impl)
{
    WelsCreateDecoder(&d_->dec);
    SDecodingParam p{};
    p.sVideoProperty.eVideoBsType = VIDEO_BITSTREAM_AVC;
    d_->dec->Initialize(&p);
}

h264_decoder::~h264_decoder()
{
    d_->dec->Uninitialize();
    WelsDestroyDecoder(d_->dec);
    delete d_;
}

std::pair<int, int> h264_decoder::decode(std::span<const uint8_t> annex_b)
{
    uint8_t* planes[3] = {};
    SBufferInfo info{};
    if (d_->dec->DecodeFrameNoDelay(annex_b.data(), static_cast<int>(annex_b.size()), planes, &info) != 0) {
        ++errors_;
        return {0, 0};
    }
    if (info.iBufferStatus != 1)
        return {0, 0};
    ++pictures_;
    return {info.UsrData.sSystemBuffer.iWidth, info.UsrData.sSystemBuffer.iHeight};
}

namespace {

// Offset of the next 00 00 01 start code at or after pos; size when none.
size_t next_start(const std::vector<uint8_t>& b, size_t pos)
{
    for (size_t i = pos; i + 2 < b.size(); ++i)
        if (b[i] == 0 && b[i + 1] == 0 && b[i + 2] == 1)
            return i;
    return b.size();
}

}  // namespace

h264_file_result decode_h264_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::vector<uint8_t> b((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    h264_file_result r;
    h264_decoder dec;
    size_t at = next_start(b, 0);
    while (at < b.size()) {
        size_t next = next_start(b, at + 3);
        // A four-byte start code's leading zero belongs to the next unit.
        size_t end = next;
        if (end < b.size() && end > at && b[end - 1] == 0)
            --end;
        ++r.nal_units;
        std::span<const uint8_t> nal(b.data() + at, end - at);
        std::pair<int, int> size = dec.decode(nal);
        if (size.first > 0) {
            if (r.pictures > 0 && (size.first != r.width || size.second != r.height))
                r.sizes_agree = false;
            r.width = size.first;
            r.height = size.second;
            ++r.pictures;
        }
        at = next;
    }
    r.errors = dec.errors();
    return r;
}

#endif
