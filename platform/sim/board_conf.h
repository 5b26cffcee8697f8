// board.conf: what the cameras of a simulated board deliver.
//
// One line per camera, "camera <number> <width>x<height> <p|i> <fps>
// [still|moving|absent] [textured]", the number being recorder-wide;
// "textured" lays a fixed fine texture over the background, so pictures
// compress as poorly as a real camera's. Lines whose first
// non-blank character is '#' and blank lines are ignored. A camera without
// a line delivers 1920 x 1080 progressive at 30 frames per second, moving.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

enum class sim_scene { moving, still, absent };

struct sim_camera_conf {
    int width = 1920;
    int height = 1080;
    bool progressive = true;
    double fps = 30.0;
    sim_scene scene = sim_scene::moving;
    bool textured = false;

    // The frame rate the camera actually delivers: 0 when absent.
    double delivered_fps() const { return scene == sim_scene::absent ? 0.0 : fps; }
};

inline constexpr int SIM_CAM_MAX_SIZE = 4096;
inline constexpr double SIM_CAM_MAX_FPS = 240.0;

struct sim_board_conf {
    std::map<int, sim_camera_conf> cameras;  // by recorder-wide number

    // Any number is safe to ask: one beyond the table is a default camera.
    sim_camera_conf camera(int64_t number) const;
};

// Parses the text. A malformed line (or a second line for one camera) is
// ignored; its reason, "board.conf:<line>: ...", is appended to problems.
sim_board_conf sim_board_conf_parse(std::string_view text, std::vector<std::string>* problems);

// Reads the file when it exists (an absent file is an empty configuration)
// and reports each ignored line on standard error.
sim_board_conf sim_board_conf_load(const std::string& path);
