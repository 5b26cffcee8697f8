#include "master/stats.h"

#include <string>
#include <utility>

namespace tmaster {

namespace {

void count_findings(slave_stats& s, kind_stats& k, const findings& f, const char* what)
{
    ++k.notes;
    if (f.rejected)
        ++k.rejected;
    if (!f.bad())
        return;
    ++k.bad;
    std::string text = what;
    for (const std::string& p : f.problems)
        text += "; " + p;
    s.note_bad(std::move(text));
}

bool record_gap(stream_stats& st, uint32_t sec, uint32_t idx)
{
    bool gap = st.seen && !((sec == st.last_sec && idx == st.last_idx + 1) ||
                            (sec == st.last_sec + 1 && idx == 0));
    st.seen = true;
    st.last_sec = sec;
    st.last_idx = idx;
    return gap;
}

bool network_gap(stream_stats& st, uint32_t day, uint32_t msec, uint8_t fps)
{
    bool gap = false;
    if (st.seen && day == st.last_day) {
        uint32_t period = fps > 0 ? 1000u / fps : 1000u;
        gap = msec <= st.last_msec || msec - st.last_msec > 2 * period;
    }
    st.seen = true;
    st.last_day = day;
    st.last_msec = msec;
    return gap;
}

bool jpeg_gap(stream_stats& st, uint32_t time)
{
    bool gap = st.seen && (time < st.last_sec || time - st.last_sec > 2);
    st.seen = true;
    st.last_sec = time;
    return gap;
}

}  // namespace

void slave_stats::note_bad(std::string text)
{
    if (last_bad.size() == STATS_BAD_KEPT)
        last_bad.pop_front();
    last_bad.push_back(std::move(text));
}

void account(slave_stats& s, const record_batch& b)
{
    count_findings(s, s.record, b.check, "record buffer");
    if (b.check.rejected)
        return;
    s.record.bytes += b.note.bytes;
    for (const record_frame& f : b.frames) {
        const mmd_t& e = f.entry;
        stream_stats& st = s.streams[{stream_kind::record, e.cam, e.low ? 1 : 0}];
        ++s.record.frames;
        ++st.frames;
        st.bytes += e.len;
        st.key_frames += e.key ? 1 : 0;
        st.width = e.width;
        st.height = e.height;
        st.fps = e.fps;
        st.gaps += record_gap(st, f.time, e.frame_idx) ? 1 : 0;
    }
}

void account(slave_stats& s, const network_batch& b)
{
    count_findings(s, s.network, b.check, "network batch");
    if (b.check.rejected)
        return;
    s.network.bytes += b.bytes;
    for (const network_frame& f : b.frames) {
        const nbuf_desc_t& d = f.desc;
        stream_stats& st = s.streams[{stream_kind::network, f.stream, 0}];
        ++s.network.frames;
        ++st.frames;
        st.bytes += d.len;
        st.key_frames += d.key ? 1 : 0;
        st.width = d.width;
        st.height = d.height;
        st.fps = d.fps;
        st.gaps += network_gap(st, d.mday, d.msec, d.fps) ? 1 : 0;
    }
}

void account(slave_stats& s, const jpeg_batch& b)
{
    count_findings(s, s.jpeg, b.check, "snapshot batch");
    if (b.check.rejected)
        return;
    s.jpeg.bytes += b.bytes;
    for (const jpeg_picture& p : b.pictures) {
        stream_stats& st = s.streams[{stream_kind::jpeg, static_cast<int>(p.stream), 0}];
        ++s.jpeg.frames;
        ++st.frames;
        st.bytes += p.desc.len;
        ++st.key_frames;
        st.gaps += jpeg_gap(st, p.desc.time) ? 1 : 0;
    }
}

void account(slave_stats& s, const motion_report& m)
{
    count_findings(s, s.motion, m.check, "motion report");
    if (m.check.rejected)
        return;
    ++s.motion.frames;
    s.moved_cells += static_cast<uint64_t>(m.moved_cells);
    ++s.motion_by_cam[m.note.cam];
}

}  // namespace tmaster
