// A board with its media system up and a core of eight cameras from
// recorder camera 8, with the video input and encoder modules created
// through their tables (threads not started). Commands go straight to the
// dispatcher, as the loop would hand them over.
#pragma once

#include <gtest/gtest.h>
#include <sys/ipc.h>

#include <cstring>
#include <string>
#include <vector>

#include "cal/cal_buf.h"
#include "cal/cal_cmd.h"
#include "cal/cal_mod.h"
#include "enc/cal_enc.h"
#include "msg/cal_hsc.h"
#include "platform/os.h"
#include "tests/support/media_board.h"
#include "vin/cal_vin.h"
#include "vin/chip.h"

class enc_board_test : public media_board_test {
protected:
    void SetUp() override
    {
        media_board_test::SetUp();
        cal_.cam_base = 8;
        cal_.num_vin = 16;
        cal_.msgid_encr = os_msgget(MSG_KEY_ENCR, IPC_CREAT);
        cal_.msgid_encn = os_msgget(MSG_KEY_ENCN, IPC_CREAT);
        make_modules();
    }
    void TearDown() override
    {
        drop_modules();
        // Record buffers handed over and never sent.
        tx_msg_t m;
        while (os_msgrcv(cal_.msgid_encr, &m, TX_MSG_BODY_SIZE, 0, IPC_NOWAIT) >= 0)
            ebuf_free(m.encr.ebuf);
        while (os_msgrcv(cal_.msgid_encn, &m, TX_MSG_BODY_SIZE, 0, IPC_NOWAIT) >= 0)
            nbuf_free(m.encn.desc.data, static_cast<int>(m.encn.desc.len));
        media_board_test::TearDown();
    }

    void make_modules()
    {
        cal_vin_mod.create(&cal_);
        cal_enc_mod.create(&cal_);
    }
    void drop_modules()
    {
        if (cal_.enc != nullptr)
            cal_enc_mod.destroy(&cal_);
        if (cal_.vin != nullptr)
            cal_vin_mod.destroy(&cal_);
    }

    // Runs one command through the dispatcher: the payload's first len bytes
    // arrive (all of it by default), the rest of the message reads zeros.
    template <class T>
    int command(uint32_t code, const T& payload, uint32_t len = sizeof(T))
    {
        std::memset(&msg_, 0, sizeof(msg_));
        msg_.id = 1;
        msg_.cmd = code;
        msg_.len = len;
        std::memcpy(msg_.data, &payload, std::min<size_t>(len, sizeof(T)));
        return cal_cmd_dispatch(&cal_, &msg_);
    }

    int set_video(uint32_t kind, int cam, int w, int h, float fps, int quality = 2, int attr = 0)
    {
        enc_set_video_cmd_t p{};
        p.kind = kind;
        p.fps = fps;
        p.width = static_cast<int16_t>(w);
        p.height = static_cast<int16_t>(h);
        p.cam = static_cast<uint8_t>(cam);
        p.quality = static_cast<uint8_t>(quality);
        p.attr = static_cast<uint8_t>(attr);
        return command(HSCC_CAL_SetEncVideo, p);
    }
    int run_video(uint32_t kind, uint32_t cam, uint32_t onoff, uint32_t stop = 0)
    {
        return command(HSCC_CAL_RunEncVideo, enc_run_video_cmd_t{kind, cam, onoff, stop});
    }
    int update(int16_t sync, int16_t fps, uint64_t t = 0)
    {
        enc_update_cmd_t p{};
        p.sync = sync;
        p.fps = fps;
        p.t = t;
        return command(HSCC_CAL_UpdatEncVideo, p);
    }

    cal_enc_t* enc() { return cal_.enc; }
    cal_vin_t* vin() { return cal_.vin; }

    // Lines the process wrote to syslog (level 7 traces go only there).
    std::vector<std::string> syslog_lines() { return read_lines(chip_file("var/log/message")); }

    // Whether a line of the process's syslog holds text.
    bool logged_line(const std::string& text)
    {
        for (const std::string& l : syslog_lines())
            if (l.find(text) != std::string::npos)
                return true;
        return false;
    }

    hsc_msg_t msg_{};
};
