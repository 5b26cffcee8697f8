#include "cal/startup.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cal/cal.h"
#include "cal/cal_cmd.h"
#include "cal/cal_log.h"
#include "cal/cal_mod.h"
#include "cal/cal_time.h"
#include "platform/hi_mpi_pciv.h"
#include "platform/hi_mpi_sys.h"
#include "platform/os.h"

cal_t* g_cal = nullptr;
uint32_t heartbit = 0;

namespace {

struct vb_pool_row {
    uint32_t blk_size;
    uint32_t blk_cnt;
    const char* mmz;
};

// Video buffer pools of the slave: six pools, the rest empty.
constexpr vb_pool_row k_vb_pools[] = {
    {524288, 64, MMZ_DEFAULT},
    {829440, 8, MMZ_DEFAULT},
    {4177920, 40, MMZ_DEFAULT},
    {345600, 24, MMZ_DDR1},
    {829440, 8, MMZ_DDR1},
    {3133440, 28, MMZ_DDR1},
};

constexpr uint32_t SYS_ALIGN_WIDTH = 64;
constexpr uint32_t PCIV_WIN_BLK_SIZE = 0x200000;
constexpr uint32_t PCIV_WIN_BLK_CNT = 4;

// Strict base-10 number as strtol reads it: no digits gives 0.
int arg_number(const char* text)
{
    return static_cast<int>(std::strtol(text, nullptr, 10));
}

// The value of a numeric argument as _parse_args takes it, widened so that
// a number beyond an int is seen as such; false when it is.
bool arg_in_int(const char* text, int64_t* out)
{
    errno = 0;
    long long v = std::strtoll(text, nullptr, 10);
    *out = v;
    return errno != ERANGE && v >= INT_MIN && v <= INT_MAX;
}

}  // namespace

int _check_args(char** argv)
{
    const char* names[3] = {"cam_base", "slave_cam", "num_vin"};
    int64_t v[3];
    for (int i = 0; i < 3; ++i) {
        if (!arg_in_int(argv[2 + i], &v[i])) {
            std::fprintf(stderr, "tarvo3532: %s '%s' is out of range\n", names[i], argv[2 + i]);
            return -1;
        }
    }
    const int64_t cam_base = v[0], slave_cam = v[1], num_vin = v[2];
    if (slave_cam < 0 || slave_cam > 32) {
        std::fprintf(stderr, "tarvo3532: slave_cam must be 0 to 32, not %lld\n", static_cast<long long>(slave_cam));
        return -1;
    }
    if (num_vin < 0 || num_vin > 32) {
        std::fprintf(stderr, "tarvo3532: num_vin must be 0 to 32, not %lld\n", static_cast<long long>(num_vin));
        return -1;
    }
    // The highest stream number is the last camera's recording copy:
    // cam_base + slave_cam - 1 + 2 * num_vin. It must be an int.
    if (cam_base < 0 || cam_base + slave_cam - 1 + 2 * num_vin > INT_MAX) {
        std::fprintf(stderr,
                     "tarvo3532: cam_base must be 0 to %lld for %lld cameras and %lld inputs, not %lld\n",
                     static_cast<long long>(INT_MAX - std::max<int64_t>(slave_cam - 1 + 2 * num_vin, 0)),
                     static_cast<long long>(slave_cam), static_cast<long long>(num_vin),
                     static_cast<long long>(cam_base));
        return -1;
    }
    return 0;
}

void _parse_args(cal_t* cal, char** argv)
{
    cal->master = std::strcmp(argv[1], "master") == 0 ? 1 : 0;
    cal->cam_base = arg_number(argv[2]);
    cal->slave_cam = arg_number(argv[3]);
    cal->num_vin = arg_number(argv[4]);
}

void _init_mem()
{
    TRACE("VB Init");

    vb_conf_t vb{};
    vb.max_pool_cnt = VB_MAX_COMM_POOLS;
    int i = 0;
    for (const vb_pool_row& row : k_vb_pools) {
        vb.comm_pool[i].blk_size = row.blk_size;
        vb.comm_pool[i].blk_cnt = row.blk_cnt;
        std::snprintf(vb.comm_pool[i].mmz_name, sizeof(vb.comm_pool[i].mmz_name), "%s", row.mmz);
        ++i;
    }

    HI_MPI_SYS_Exit();
    HI_MPI_VB_Exit();

    mpp_sys_conf_t sys{};
    sys.align_width = SYS_ALIGN_WIDTH;
    if (HI_MPI_VB_SetConf(&vb) != 0 || HI_MPI_VB_Init() != 0 || HI_MPI_SYS_SetConf(&sys) != 0 ||
        HI_MPI_SYS_Init() != 0)
        CAL_FATAL("ASSERTION!!\n");

    pciv_win_vb_cfg_t win{};
    win.pool_count = 1;
    win.blk_size[0] = PCIV_WIN_BLK_SIZE;
    win.blk_count[0] = PCIV_WIN_BLK_CNT;
    int32_t r = HI_MPI_PCIV_WinVbCreate(&win);
    TRACE("WinVbCreate.. r:%d\n", r);
}

void low_power(int master, int num_vin)
{
    TRACE("master:%d num_vin:%d\n", master, num_vin);
}

int _set_tz(cal_t*, const char* tz)
{
    TRACE("tz:%s\n", tz);
    // The zone text comes from the master: applied only when it is a zone
    // rule or a zone name, and written as data, never handed to a shell.
    if (cal_set_tz_env(tz) != 0) {
        size_t n = strnlen(tz, CAL_TZ_MAX + 1);
        if (n > CAL_TZ_MAX)
            TRACE("tz not applied: longer than %zu characters\n", CAL_TZ_MAX);
        else
            TRACE("tz not applied: neither a zone rule nor a zone name\n");
        return 0;
    }
    os_write_etc_tz(tz);
    return 0;
}

int _set_time(cal_t* cal, uint64_t seconds, uint64_t usec)
{
    (void)seconds;
    uint64_t old_sec = static_cast<uint64_t>(os_time(nullptr));
    struct timeval tv;
    tv.tv_sec = static_cast<time_t>(usec / 1000000);
    tv.tv_usec = static_cast<suseconds_t>(usec % 1000000);
    os_settimeofday(&tv);
    // The encoder aligns the media time stamps with the new clock.
    cal_mod_set_time(cal, usec);
    uint64_t new_sec = usec / 1000000;
    uint64_t diff = new_sec > old_sec ? new_sec - old_sec : old_sec - new_sec;
    TRACE("%llu %llu %llu\n", static_cast<unsigned long long>(old_sec), static_cast<unsigned long long>(new_sec),
          static_cast<unsigned long long>(diff));
    return 0;
}

int tarvo_main(int argc, char** argv)
{
    if (argc < 5) {
        std::fprintf(stderr, "usage: %s <role> <cam_base> <slave_cam> <num_vin>\n",
                     argc > 0 ? argv[0] : "tarvo3532");
        return 2;
    }
    // Refused before the board is touched, like an unusable board.
    if (_check_args(argv) != 0)
        return 2;
    if (platform_init(argc, argv) != 0)
        return 2;

    os_system("killall syslogd");
    os_system("syslogd -O /var/log/message");
    os_openlog("tarvo", 0, LOG_USER);

    std::printf("tarv3532.. errno:%d\n", errno);
    os_syslog(LOG_DEBUG, "tarvo3532 v1.1 start!!\n");
    std::printf("tarvo3532 v1.1 argc:%d\n", argc);
    std::fflush(stdout);

    _init_mem();
    g_cal = cal_new();
    for (int k = 0; k < argc; ++k)
        TRACE("k:%d argv:%s\n", k, argv[k]);
    _parse_args(g_cal, argv);

    cal_mod_new(g_cal);
    TRACE("master:%d cam_base:%d slave_cam:%d num_vin:%d\n", g_cal->master, g_cal->cam_base, g_cal->slave_cam,
          g_cal->num_vin);
    cal_start(g_cal);
    low_power(g_cal->master, g_cal->num_vin);
    cal_thread_priority(0, "gui");

    cal_cmd_loop(g_cal);
}
