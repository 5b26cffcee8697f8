#include "platform/sim/board_conf.h"

#include <charconv>
#include <climits>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace {

bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\r';
}

// Splits a line into words separated by blanks.
std::vector<std::string_view> split_words(std::string_view line)
{
    std::vector<std::string_view> words;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && is_blank(line[i]))
            ++i;
        size_t start = i;
        while (i < line.size() && !is_blank(line[i]))
            ++i;
        if (i > start)
            words.push_back(line.substr(start, i - start));
    }
    return words;
}

bool parse_int(std::string_view text, int* out)
{
    int v = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
    if (ec != std::errc() || end != text.data() + text.size())
        return false;
    *out = v;
    return true;
}

bool parse_double(std::string_view text, double* out)
{
    double v = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v, std::chars_format::fixed);
    if (ec != std::errc() || end != text.data() + text.size() || !std::isfinite(v))
        return false;
    *out = v;
    return true;
}

// One camera line; returns an empty string or the reason it is refused.
std::string parse_camera(const std::vector<std::string_view>& w, int* number, sim_camera_conf* cam)
{
    if (w[0] != "camera")
        return "unknown keyword '" + std::string(w[0]) + "'";
    if (w.size() < 5 || w.size() > 7)
        return "expected 'camera <number> <width>x<height> <p|i> <fps> [still|moving|absent] [textured]'";
    if (!parse_int(w[1], number) || *number < 0)
        return "camera number '" + std::string(w[1]) + "' is not a number 0 or above";
    size_t x = w[2].find('x');
    if (x == std::string_view::npos || !parse_int(w[2].substr(0, x), &cam->width) ||
        !parse_int(w[2].substr(x + 1), &cam->height) || cam->width < 16 || cam->height < 16 ||
        cam->width > SIM_CAM_MAX_SIZE || cam->height > SIM_CAM_MAX_SIZE)
        return "picture size '" + std::string(w[2]) + "' is not <width>x<height> of 16 to 4096 each";
    if (w[3] == "p")
        cam->progressive = true;
    else if (w[3] == "i")
        cam->progressive = false;
    else
        return "scan '" + std::string(w[3]) + "' is neither p nor i";
    if (!parse_double(w[4], &cam->fps) || cam->fps <= 0.0 || cam->fps > SIM_CAM_MAX_FPS)
        return "frame rate '" + std::string(w[4]) + "' is not a number above 0 and at most 240";
    if (w.size() >= 6) {
        if (w[5] == "moving")
            cam->scene = sim_scene::moving;
        else if (w[5] == "still")
            cam->scene = sim_scene::still;
        else if (w[5] == "absent")
            cam->scene = sim_scene::absent;
        else
            return "scene '" + std::string(w[5]) + "' is not still, moving or absent";
    }
    if (w.size() == 7) {
        if (w[6] != "textured")
            return "'" + std::string(w[6]) + "' after the scene is not textured";
        cam->textured = true;
    }
    return {};
}

}  // namespace

sim_camera_conf sim_board_conf::camera(int64_t number) const
{
    if (number < 0 || number > INT_MAX)
        return {};
    auto it = cameras.find(static_cast<int>(number));
    return it == cameras.end() ? sim_camera_conf{} : it->second;
}

sim_board_conf sim_board_conf_parse(std::string_view text, std::vector<std::string>* problems)
{
    sim_board_conf conf;
    int line_no = 0;
    while (!text.empty()) {
        size_t nl = text.find('\n');
        std::string_view line = text.substr(0, nl);
        text = nl == std::string_view::npos ? std::string_view{} : text.substr(nl + 1);
        ++line_no;

        std::vector<std::string_view> words = split_words(line);
        if (words.empty() || words[0][0] == '#')
            continue;
        int number = -1;
        sim_camera_conf cam;
        std::string reason = parse_camera(words, &number, &cam);
        if (reason.empty() && conf.cameras.count(number) != 0)
            reason = "camera " + std::to_string(number) + " is already given";
        if (!reason.empty()) {
            if (problems != nullptr)
                problems->push_back("board.conf:" + std::to_string(line_no) + ": " + reason +
                                    "; line ignored");
            continue;
        }
        conf.cameras[number] = cam;
    }
    return conf;
}

sim_board_conf sim_board_conf_load(const std::string& path)
{
    std::ifstream in(path);
    if (!in)
        return {};
    std::ostringstream text;
    text << in.rdbuf();
    std::vector<std::string> problems;
    sim_board_conf conf = sim_board_conf_parse(text.str(), &problems);
    for (const std::string& p : problems)
        std::fprintf(stderr, "sim: %s\n", p.c_str());
    return conf;
}
