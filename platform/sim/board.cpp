#include "platform/sim/board.h"

#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/os.h"
#include "platform/sim/families.h"
#include "platform/sim/fault.h"
#include "platform/sim/leak_check.h"
#include "platform/sim/mcc_sim.h"

namespace {

struct family_hooks {
    int (*open)(std::string* err);
    void (*close)();
};

// Order matters: the OS services (logs, clock) come first so that later
// families can use them, and close last.
constexpr family_hooks k_families[] = {
    {sim_os_open, sim_os_close},
    {sim_sys_open, sim_sys_close},
    {sim_media_open, sim_media_close},
    {sim_pcimem_open, sim_pcimem_close},
    {sim_mcc_open, sim_mcc_close},
};
constexpr int k_family_count = sizeof(k_families) / sizeof(k_families[0]);

std::string g_dir;
int g_chip = 0;
int g_cam_base = 0;
bool g_open = false;

int make_dir(const std::string& path, std::string* err)
{
    if (mkdir(path.c_str(), 0755) == 0 || errno == EEXIST)
        return 0;
    *err = "cannot create " + path + ": " + std::strerror(errno);
    return -1;
}

}  // namespace

int sim_board_open(const char* dir, int chip, const char* fail_rules, std::string* err)
{
    if (g_open)
        sim_board_close();
    if (dir == nullptr || dir[0] != '/') {
        *err = "TARVO_BOARD must be the absolute path of the board directory";
        return -1;
    }
    struct stat st;
    if (stat(dir, &st) != 0 || !S_ISDIR(st.st_mode)) {
        *err = std::string("board directory ") + dir + " does not exist";
        return -1;
    }
    if (access(dir, W_OK | X_OK) != 0) {
        *err = std::string("board directory ") + dir + " is not writable";
        return -1;
    }
    if (chip < 1 || chip > 14) {
        *err = "TARVO_CHIP_ID must be 1 to 14, not " + std::to_string(chip);
        return -1;
    }
    std::string trimmed = dir;
    while (trimmed.size() > 1 && trimmed.back() == '/')
        trimmed.pop_back();
    // Checked before anything is created: the chip's sockets live in the
    // board directory and their paths must fit a socket address.
    const std::string longest = trimmed + "/" + SIM_MCC_LONGEST_SOCK;
    if (longest.size() >= sizeof(sockaddr_un::sun_path)) {
        *err = std::string("board directory ") + dir + " is too long: " + longest + " must fit in " +
               std::to_string(sizeof(sockaddr_un::sun_path) - 1) + " bytes";
        return -1;
    }
    if (sim_fault_set(fail_rules, err) != 0)
        return -1;

    g_dir = trimmed;
    g_cam_base = 0;
    g_chip = chip;
    for (const char* sub : {"", "/etc", "/var", "/var/log"})
        if (make_dir(sim_chip_path("") + sub, err) != 0)
            return -1;

    for (int i = 0; i < k_family_count; ++i) {
        if (k_families[i].open(err) != 0) {
            while (i-- > 0)
                k_families[i].close();
            return -1;
        }
    }
    g_open = true;
    return 0;
}

void sim_board_close()
{
    if (!g_open)
        return;
    for (int i = k_family_count; i-- > 0;)
        k_families[i].close();
    g_open = false;
}

bool sim_board_is_open()
{
    return g_open;
}

const std::string& sim_board_dir()
{
    return g_dir;
}

int sim_chip_id()
{
    return g_chip;
}

int sim_cam_base()
{
    return g_cam_base;
}

void sim_set_cam_base(int cam_base)
{
    g_cam_base = cam_base;
}

std::string sim_board_path(std::string_view rel)
{
    std::string p = g_dir;
    p += '/';
    p += rel;
    return p;
}

std::string sim_chip_path(std::string_view rel)
{
    std::string p = g_dir + "/chip" + std::to_string(g_chip);
    if (!rel.empty()) {
        p += '/';
        p += rel;
    }
    return p;
}

int platform_init(int argc, char** argv)
{
    const char* dir = std::getenv("TARVO_BOARD");
    const char* chip_text = std::getenv("TARVO_CHIP_ID");
    int chip = 1;
    if (chip_text != nullptr && chip_text[0] != '\0') {
        char* end = nullptr;
        long v = std::strtol(chip_text, &end, 10);
        chip = (*end == '\0' && v >= 1 && v <= 14) ? static_cast<int>(v) : -1;
        if (chip < 0) {
            std::fprintf(stderr, "tarvo3532: TARVO_CHIP_ID must be 1 to 14, not '%s'\n", chip_text);
            return -1;
        }
    }
    if (dir == nullptr || dir[0] == '\0') {
        std::fprintf(stderr, "tarvo3532: TARVO_BOARD is not set; it must name the board directory\n");
        return -1;
    }
    // Before the board starts its threads, so that every one of them leaves
    // SIGTERM to the leak check.
    if (sim_leak_check_arm() != 0) {
        std::fprintf(stderr, "tarvo3532: cannot start the leak check thread\n");
        return -1;
    }
    std::string err;
    if (sim_board_open(dir, chip, std::getenv("TARVO_SIM_FAIL"), &err) != 0) {
        std::fprintf(stderr, "tarvo3532: %s\n", err.c_str());
        return -1;
    }
    g_cam_base = argc > 2 ? static_cast<int>(std::strtol(argv[2], nullptr, 10)) : 0;
    return 0;
}
