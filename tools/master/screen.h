// The master's side of the video output: the screen layouts, zooms and PCI
// video commands a recorder sends a slave, the slave's media state as its
// board writes it (media.json), and a drawing of the slave's part of the
// screen as a PNG.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tmaster {

inline constexpr uint32_t CMD_SET_LAYOUT = 0x20100;
inline constexpr uint32_t CMD_SET_ZOOM = 0x20101;
inline constexpr uint32_t CMD_INIT_PCIV_VO = 0x20303;
inline constexpr uint32_t CMD_START_PCIV_VO = 0x20305;
inline constexpr uint32_t CMD_STOP_PCIV_VO = 0x20306;

inline constexpr int SCREEN_WIDTH = 1920;
inline constexpr int SCREEN_HEIGHT = 1080;
inline constexpr int LAYOUT_MAX_CELLS = 32;

// One cell of the screen: a recorder-wide camera and its rectangle.
struct screen_cell {
    int cam;
    int x, y, width, height;
};

struct layout_cmd {
    int vout_idx = 0;
    int layout = 0;                 // the recorder's own layout id
    std::vector<screen_cell> cells; // at most 32 are sent
    std::array<bool, 32> narrow{};  // per recorder-wide camera
    int cells_field = -1;           // the count sent; -1: the number of cells
};

// An n x n grid over the screen with cameras first, first + 1, ...
layout_cmd grid_layout(int n, int first);
// Three by three with the first camera's cell 2 x 2 (1280 x 720).
layout_cmd nine_with_wide(int first);

// Wire records of the layout, zoom and PCI video commands (little-endian).
std::vector<uint8_t> layout_payload(const layout_cmd& l);
std::vector<uint8_t> zoom_payload(int cam, int x, int y, int width, int height);

// The PCI video attribute record of a channel this master receives into:
// picture w x h 4:2:0 in buffers of its own memory.
inline constexpr size_t PCIV_ATTR_SIZE = 112;
std::array<uint8_t, PCIV_ATTR_SIZE> pciv_attr_record(uint32_t width, uint32_t height, int remote_chn);
// kind 0 PIP, 2 main, other spot; live applies to main.
std::vector<uint8_t> pciv_init_payload(int kind, int chn, int live, uint32_t width, uint32_t height);
std::vector<uint8_t> pciv_start_payload(int kind, int arg, int live, int width, int height);
std::vector<uint8_t> pciv_stop_payload(int kind, int chn);

// ---- the slave's media state ---------------------------------------------------------

struct media_chn {
    int mod = -1, dev = -1, chn = -1;
    bool operator==(const media_chn&) const = default;
};

struct media_vo {
    int dev = 0, chn = 0;
    bool enabled = false, paused = false;
    int x = 0, y = 0, width = 0, height = 0;
    uint64_t pictures = 0;
};

struct media_crop {
    bool enable = false;
    int x = 0, y = 0, width = 0, height = 0;
};

struct media_vpss {
    int grp = 0;
    bool started = false;
    media_crop crop;
    uint64_t pictures = 0;
};

struct media_pciv {
    int chn = 0;
    bool started = false;
    int width = 0, height = 0;
    uint64_t pictures = 0;
};

struct media_vi {
    int chn = 0;
    int width = 0, height = 0;
};

struct media_state {
    std::vector<std::pair<media_chn, media_chn>> binds;  // source, destination
    std::vector<media_vi> vi;
    std::vector<media_vpss> vpss;
    std::vector<media_vo> vo;
    std::vector<media_pciv> pciv;

    std::optional<media_chn> source_of(const media_chn& dest) const;
    const media_vo* vo_chn(int dev, int chn) const;
    const media_vpss* group(int grp) const;
    const media_pciv* pciv_chn(int chn) const;
};

// Parses media.json text; nullopt (with the reason in *err) when it is not
// the board's JSON.
std::optional<media_state> parse_media_state(const std::string& text, std::string* err);
// Reads <board>/chip<chip>/media.json.
std::optional<media_state> read_media_state(const std::string& board, int chip, std::string* err);

// ---- drawing ------------------------------------------------------------------------------

// What one output channel of device 8 shows, followed back through the
// bindings.
struct screen_part {
    media_vo vo;
    std::optional<media_chn> source;  // what feeds the channel
    std::string via;                  // "full", "main", "sub", "other" or "none"
    std::optional<media_chn> capture; // the capture channel at the start of the chain
    media_crop crop;                  // of group 127 when the cell shows it
};

// The enabled channels of output device 8 and what feeds each.
std::vector<screen_part> screen_parts(const media_state& s, int slave_cam);

// Draws the parts at half size (960 x 540) as an RGB PNG: each cell in a
// colour of its source, the channel number in digits, the zoom rectangle
// of a full-screen cell. 0, or -1 with *err.
int draw_screen_png(const std::vector<screen_part>& parts, const std::string& path, std::string* err);

}  // namespace tmaster
