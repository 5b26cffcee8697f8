// The recording's report as a person sees it: a short recording with a
// screen layout drawn into the same folder, its report.html opened from the
// folder in headless Chromium with the network unreachable. Every picture
// of the page must load (snapshots, overlays, heat maps, plots, the layout),
// the page must name nothing outside the folder, and a screenshot of it
// must come out.
#include <gtest/gtest.h>
#include <png.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "master/record.h"
#include "tests/support/test_board.h"

using namespace tmaster;

namespace {

constexpr int CAMERAS = 2;

// Runs a program with its standard output and error in `log`; its exit
// status, or -1 when it ran past `limit` (it is then killed).
int run(std::vector<std::string> args, const std::string& log, std::chrono::seconds limit)
{
    std::vector<char*> argv;
    for (std::string& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid < 0)
        return -1;
    if (pid == 0) {
        if (!std::freopen(log.c_str(), "w", stdout) || !std::freopen(log.c_str(), "a", stderr))
            _exit(126);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    const auto until = std::chrono::steady_clock::now() + limit;
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > until) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Width and height of a PNG file; 0 x 0 when it is none.
std::pair<uint32_t, uint32_t> png_size(const std::string& path)
{
    std::unique_ptr<FILE, int (*)(FILE*)> f(std::fopen(path.c_str(), "rb"), std::fclose);
    if (!f)
        return {0, 0};
    png_image img{};
    img.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_stdio(&img, f.get()))
        return {0, 0};
    std::pair<uint32_t, uint32_t> wh{img.width, img.height};
    png_image_free(&img);
    return wh;
}

std::vector<std::string> chromium(const std::string& profile)
{
    // Headless as any user (root included); every request to the network
    // goes to a proxy that is not there.
    return {"chromium", "--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
            "--user-data-dir=" + profile, "--proxy-server=127.0.0.1:9", "--no-first-run"};
}

TEST(report_browser, the_report_opens_offline_with_every_picture_loaded)
{
    temp_board_dir out;
    temp_board_dir profile;
    {
        // A screen layout drawn into the folder first, on a board of its own.
        temp_board_dir screen_board;
        const int rc = run({TARVO_MASTER_BINARY, "layout", "--slave", TARVO_SLAVE_BINARY, "--board",
                            screen_board.path(), "--png", out.path() + "/layout.png", "--cells", "4"},
                           profile.path() + "/layout.log", std::chrono::seconds(120));
        ASSERT_EQ(rc, 0) << read_file(profile.path() + "/layout.log");
    }

    temp_board_dir board;
    board.share_cache();
    record_options o;
    o.board = board.path();
    o.slave = TARVO_SLAVE_BINARY;
    o.plan.out = out.path();
    o.plan.slaves = {{1, 0, CAMERAS, CAMERAS}};
    o.plan.masks = {{0, 0.5, 0.1, 0.3, 0.3}};
    o.seconds = 6;
    o.first_key_wait = std::chrono::milliseconds(120000);
    o.progress = stderr;
    record_summary s = record(o);
    ASSERT_EQ(s.rc, 0) << s.error;
    ASSERT_EQ(s.report, "report.html");
    const std::string page = out.path() + "/report.html";
    const std::string html = read_file(page);

    // Everything the page shows or links lies in the folder.
    EXPECT_EQ(html.find("://"), std::string::npos) << "the page names something outside its folder";
    std::vector<std::string> want = {"src=\"layout.png\"", "src=\"report/slave1-status.png\""};
    for (int c = 0; c < CAMERAS; ++c) {
        char name[64];
        for (const char* kind : {"overlay", "motion"}) {
            std::snprintf(name, sizeof(name), "src=\"slave1/cam%02d-%s.png\"", c, kind);
            want.emplace_back(name);
        }
        std::snprintf(name, sizeof(name), "src=\"report/slave1-cam%02d-rate.png\"", c);
        want.emplace_back(name);
        for (const char* stream : {"rec", "reclow", "netlow", "copy"}) {
            std::snprintf(name, sizeof(name), "href=\"slave1/cam%02d-%s.mp4\"", c, stream);
            want.emplace_back(name);
        }
    }
    for (const std::string& w : want)
        EXPECT_NE(html.find(w), std::string::npos) << w;
    // One snapshot thumbnail per camera, linking to the picture itself.
    const std::regex thumb(R"re(<a href="(slave1/snap/cam0[0-9]-[0-9-]+\.jpg)"><img class="thumb" src="\1")re");
    const auto thumbs = std::distance(std::sregex_iterator(html.begin(), html.end(), thumb), std::sregex_iterator());
    EXPECT_EQ(thumbs, CAMERAS);

    // The page after its scripts ran: its own count of loaded pictures.
    const std::string dom = profile.path() + "/dom.html";
    std::vector<std::string> args = chromium(profile.path() + "/p1");
    args.insert(args.end(), {"--virtual-time-budget=10000", "--dump-dom", "file://" + page});
    ASSERT_EQ(run(args, dom, std::chrono::seconds(120)), 0) << read_file(dom);
    const std::string after = read_file(dom);
    std::smatch m;
    ASSERT_TRUE(std::regex_search(after, m, std::regex(R"(images loaded: ([0-9]+) of ([0-9]+))"))) << after;
    const size_t expected = 2 + 4 * CAMERAS;  // layout, status; per camera snapshot, overlay, heat map, plot
    EXPECT_EQ(std::stoul(m[1]), std::stoul(m[2])) << m[0];
    EXPECT_EQ(std::stoul(m[2]), expected) << m[0];

    // And what a person sees.
    const std::string shot = out.path() + "/report.png";
    args = chromium(profile.path() + "/p2");
    args.insert(args.end(), {"--window-size=1280,2000", "--screenshot=" + shot, "file://" + page});
    ASSERT_EQ(run(args, profile.path() + "/shot.log", std::chrono::seconds(120)), 0) << read_file(profile.path() + "/shot.log");
    EXPECT_EQ(png_size(shot), (std::pair<uint32_t, uint32_t>{1280, 2000}));
}

}  // namespace
