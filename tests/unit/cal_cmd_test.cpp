// The command loop, one turn at a time against an in-process master: the
// rows' own argument extraction, the status reply, and what short or broken
// commands get. Every code being answered once and in order, and garbage
// from the master, are shown end to end (tests/e2e/command_e2e_test.cpp).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

#include "cal/cal.h"
#include "cal/cal_cmd.h"
#include "cal/cal_time.h"
#include "cal/startup.h"
#include "msg/cal_hsc.h"
#include "platform/sim/fault.h"
#include "tests/support/core_board.h"
#include "tests/support/test_board.h"
#include "vin/chip.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using bytes = std::vector<unsigned char>;

struct reply {
    uint32_t head[4];  // id, cmd, len, result
    bytes payload;

    uint32_t word(size_t k) const
    {
        uint32_t v = 0;
        if (payload.size() >= 4 * k + 4)
            std::memcpy(&v, payload.data() + 4 * k, 4);
        return v;
    }
    int32_t result() const { return static_cast<int32_t>(head[3]); }
};

bytes words(std::initializer_list<int32_t> w, size_t size = 0)
{
    bytes p(std::max(size, w.size() * 4));
    if (w.size() > 0)
        std::memcpy(p.data(), w.begin(), w.size() * 4);
    return p;
}

class cal_cmd_test : public core_board_test {
protected:
    void SetUp() override
    {
        core_board_test::SetUp();
        _init_mem();
        master_->recv_msg(MSGPORT_CAL);  // the announcement
    }

    // Sends one command, runs one turn of the loop, returns the reply.
    reply command(uint32_t cmd, const bytes& payload = {}, uint32_t id = 1)
    {
        bytes m(16, 0);
        uint32_t head[4] = {id, cmd, static_cast<uint32_t>(payload.size()), 0x7777};
        std::memcpy(m.data(), head, 16);
        m.insert(m.end(), payload.begin(), payload.end());
        master_->send(MSGPORT_CAL, m.data(), m.size());
        hsc_msg_t msg;
        EXPECT_EQ(cal_cmd_turn(cal_, &msg), 0);
        bytes r = master_->recv_msg(MSGPORT_CAL);
        reply out{};
        if (r.size() >= 16) {
            std::memcpy(out.head, r.data(), 16);
            out.payload.assign(r.begin() + 16, r.end());
        }
        return out;
    }
};

TEST_F(cal_cmd_test, codes_awaiting_their_module_come_back_unchanged_with_result_0)
{
    for (uint32_t code : {0x20000u, 0x20201u, 0x20308u, 0x20385u}) {
        bytes payload = words({11, 22, 33, 44, 55, 66, 77, 88});
        reply r = command(code, payload, 5);
        EXPECT_THAT(r.head, ElementsAre(5u, code, payload.size(), 0u)) << std::hex << code;
        EXPECT_EQ(r.payload, payload);
    }
}

TEST_F(cal_cmd_test, rows_of_a_module_that_is_not_in_the_process_answer_like_unknown_codes)
{
    // The core of this board has no encoder object: its codes are unknown.
    bytes video(20, 7);
    reply r = command(HSCC_CAL_SetEncVideo, video);
    EXPECT_EQ(r.result(), 0);
    EXPECT_EQ(r.payload, video);
    EXPECT_EQ(cal_cmd_find_row(cal_, HSCC_CAL_SetEncVideo), nullptr);
    EXPECT_EQ(cal_cmd_find_row(cal_, HSCC_CAL_SetMd), nullptr);
    EXPECT_EQ(cal_cmd_find_row(cal_, HSCC_CAL_SetLayout), nullptr);
    EXPECT_EQ(cal_cmd_find_row(cal_, 0x20304), nullptr);
}

// Cameras 0 .. 3 of the recorder at 25, 12, 15 and 10 frames per second,
// on a slave whose first camera is 0 as far as the board is concerned.
class cal_cmd_status_test : public cal_cmd_test {
protected:
    const char* board_conf() const override
    {
        return "camera 0 1920x1080 p 25\ncamera 1 1920x1080 p 12\n"
               "camera 2 1280x720 p 15\ncamera 3 1920x1080 p 10\n";
    }
};

TEST_F(cal_cmd_status_test, with_eight_cameras_a_failed_query_repeats_the_camera_before)
{
    std::string err;
    ASSERT_EQ(sim_fault_set("HI_MPI_VI_Query@3=a0108005", &err), 0) << err;
    ASSERT_EQ(chip_init_slave(cal_), 0);
    reply s = command(HSCC_CAL_GetStatus);
    ASSERT_EQ(s.head[2], 56u);
    // Camera 2's query failed: its slot repeats camera 1's rate.
    EXPECT_THAT((std::vector<uint32_t>{s.word(1), s.word(2), s.word(3), s.word(4), s.word(5)}),
                ElementsAre(25, 12, 12, 10, 30));
    EXPECT_EQ(s.word(12), 0u);  // no decode thread yet
    EXPECT_EQ(s.word(13), 0u);  // no JPEG thread yet
}

TEST_F(cal_cmd_status_test, with_four_cameras_reads_channels_0_4_8_12_and_keeps_the_rest)
{
    cal_->slave_cam = 4;
    ASSERT_EQ(chip_init_slave(cal_), 0);
    bytes request(56);
    for (size_t i = 0; i < request.size(); ++i)
        request[i] = static_cast<unsigned char>(i);
    reply s = command(HSCC_CAL_GetStatus, request);
    ASSERT_EQ(s.payload.size(), 56u);
    // The cameras capture on channels 0, 2, 14 and 12: of 0, 4, 8 and 12 only
    // 0 (camera 0) and 12 (camera 3) answer; failed queries repeat.
    EXPECT_THAT((std::vector<uint32_t>{s.word(1), s.word(2), s.word(3), s.word(4)}), ElementsAre(25, 25, 25, 10));
    EXPECT_TRUE(std::equal(s.payload.begin() + 20, s.payload.begin() + 36, request.begin() + 20));
}

TEST_F(cal_cmd_test, short_and_broken_commands_are_refused_or_skipped)
{
    // SetDmaInfo with 8 of its 20 bytes: refused, windows untouched.
    EXPECT_EQ(command(HSCC_CAL_SetDmaInfo, words({0, 0x10000000})).result(), -1);
    EXPECT_EQ(cal_->hsc->host_phys_addr[0].load(), 0u);
    // Rows answered 0 whatever happens, and rows whose module is not in the
    // process yet, answer a short request with 0 and run nothing.
    const std::string clock = read_file(chip_file("clock"));
    EXPECT_EQ(command(HSCC_CAL_SetTz, {}).result(), 0);
    EXPECT_EQ(command(HSCC_CAL_SetTime, words({1})).result(), 0);
    EXPECT_EQ(read_file(chip_file("clock")), clock);
    EXPECT_EQ(command(HSCC_CAL_SetMd, words({1})).result(), 0);

    // A 10-byte message is no command: a 10 ms pause, a turn, no reply.
    unsigned char junk[10] = {};
    master_->send(MSGPORT_CAL, junk, sizeof(junk));
    hsc_msg_t msg;
    uint32_t turns = heartbit;
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(cal_cmd_turn(cal_, &msg), -1);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(10));
    EXPECT_EQ(heartbit, turns + 1);
    EXPECT_FALSE(master_->readable(MSGPORT_CAL, 20));
}

TEST_F(cal_cmd_test, zone_rules_and_zone_names_are_applied_as_data_and_any_other_text_is_left_unapplied)
{
    const std::string too_long = "CST-8" + std::string(CAL_TZ_MAX - 4, 'A');
    const struct {
        std::string tz;
        bool applied;
    } cases[] = {
        {"CST-8", true},
        {"EST5EDT,M3.2.0,M11.1.0", true},
        {"<+0330>-3:30<+0430>,J79/24,J263/24", true},
        {"AEST-10AEDT,M10.1.0,M4.1.0/3", true},
        {"Europe/Berlin", true},
        {"Etc/GMT+8", true},
        {too_long.substr(0, CAL_TZ_MAX), true},
        {too_long, false},
        {"CST-8; touch /tmp/tarvo-pwned", false},
        {":/etc/localtime", false},
        {"/etc/passwd", false},
        {":Europe/Berlin", false},
        {"../../../../tmp/zone", false},
        {"Europe/../../../tmp/zone", false},
        {"CST-8,M3.2.0", false},
        {"CST -8", false},
        {"Europe//Berlin", false},
        {"CST-8\nUTC0", false},
    };
    for (const auto& c : cases) {
        const std::string env_before = getenv("TZ") ? getenv("TZ") : "", file_before = read_file(chip_file("etc/TZ"));
        stdout_capture out;
        // No NUL: the text ends with the payload.
        EXPECT_EQ(command(HSCC_CAL_SetTz, bytes(c.tz.begin(), c.tz.end())).result(), 0) << c.tz;
        if (c.applied) {
            EXPECT_STREQ(getenv("TZ"), c.tz.c_str());
            EXPECT_EQ(read_file(chip_file("etc/TZ")), c.tz + "\n");
        } else {
            EXPECT_EQ(getenv("TZ") ? getenv("TZ") : "", env_before) << c.tz;
            EXPECT_EQ(read_file(chip_file("etc/TZ")), file_before) << c.tz;
            EXPECT_THAT(out.text(), HasSubstr("> tz not applied: ")) << c.tz;
        }
    }
    EXPECT_THAT(read_file(chip_file("shell.log")), ::testing::Not(HasSubstr("CST-8")));
    EXPECT_FALSE(file_exists("/tmp/tarvo-pwned"));
}

TEST_F(cal_cmd_test, a_zone_text_naming_a_fifo_never_blocks_the_command_loop)
{
    const std::string fifo = board_.file("zone-fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string tz = ":" + fifo;
    std::atomic<bool> answered{false};
    std::thread loop([&] {
        command(HSCC_CAL_SetTz, bytes(tz.begin(), tz.end()));
        answered = true;
    });
    for (int i = 0; i < 200 && !answered; ++i)
        usleep(10000);
    EXPECT_TRUE(answered) << "the command loop waits on " << fifo;
    if (!answered) {
        // A writer lets the blocked open go on, so that the test ends.
        int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
        if (fd >= 0)
            close(fd);
    }
    loop.join();
}

TEST_F(cal_cmd_test, any_number_of_zone_texts_leaves_the_zones_storage_as_it_was)
{
    // Distinct texts with the same abbreviations (the C library keeps each
    // abbreviation it has seen, once).
    ASSERT_EQ(_set_tz(cal_, "ABC-0:00:00DEF"), 0);
    const char* storage = getenv("TZ");
    const size_t before = mallinfo2().uordblks;
    for (int k = 0; k < 3000; ++k) {
        char tz[64];
        std::snprintf(tz, sizeof(tz), "ABC-%d:%02d:%02dDEF", k / 3600 % 24, k / 60 % 60, k % 60);
        _set_tz(cal_, tz);
        ASSERT_STREQ(getenv("TZ"), tz);
    }
    EXPECT_EQ(getenv("TZ"), storage);
    EXPECT_LT(mallinfo2().uordblks, before + 32 * 1024);  // a copy per text would be 3000 or more
}

}  // namespace
