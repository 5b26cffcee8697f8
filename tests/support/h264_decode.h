// Test support: decoding H.264 with OpenH264 (host builds of the simulated
// board only, where TARVO_SIM_OPENH264 is defined).
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <utility>

#ifdef TARVO_SIM_OPENH264

// An OpenH264 decoder fed whole access units or single NAL units.
class h264_decoder {
public:
    h264_decoder();
    ~h264_decoder();
    h264_decoder(const h264_decoder&) = delete;
    h264_decoder& operator=(const h264_decoder&) = delete;

    // The size of the picture that came out, {0, 0} when none did.
    std::pair<int, int> decode(std::span<const uint8_t> annex_b);
    // Pictures that came out of everything decoded so far.
    int pictures() const { return pictures_; }
    // Units the decoder refused.
    int errors() const { return errors_; }

private:
    struct impl;
    impl* d_;
    int pictures_ = 0;
    int errors_ = 0;
};

struct h264_file_result {
    int pictures = 0;   // decoded pictures
    int nal_units = 0;
    int errors = 0;     // NAL units the decoder refused
    int width = 0, height = 0;  // of the last picture
    bool sizes_agree = true;    // every picture had the last one's size
};

// Decodes an Annex B file NAL unit by NAL unit.
h264_file_result decode_h264_file(const std::string& path);

#endif
