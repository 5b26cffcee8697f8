#include <cstdarg>
#include <cstdio>
#include <string>

#include "master/master.h"

namespace tmaster {

namespace {

void addf(std::string& out, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

void addf(std::string& out, const char* fmt, ...)
{
    char line[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(line, sizeof(line), fmt, ap);
    va_end(ap);
    out += line;
}

void kind_line(std::string& out, const char* name, const kind_stats& k, const char* unit)
{
    addf(out, "   %-12s %llu notification(s), %llu %s, %llu bytes, %llu bad (%llu rejected)\n", name,
         static_cast<unsigned long long>(k.notes), static_cast<unsigned long long>(k.frames), unit,
         static_cast<unsigned long long>(k.bytes), static_cast<unsigned long long>(k.bad),
         static_cast<unsigned long long>(k.rejected));
}

std::string stream_label(const stream_id& id)
{
    char text[32];
    if (id.kind == stream_kind::record)
        std::snprintf(text, sizeof(text), "cam %d %s", id.number, id.low ? "low" : "main");
    else
        std::snprintf(text, sizeof(text), "%d", id.number);
    return text;
}

}  // namespace

const char* kind_name(stream_kind k)
{
    switch (k) {
    case stream_kind::record: return "record";
    case stream_kind::network: return "network";
    case stream_kind::jpeg: return "snapshot";
    }
    return "?";
}

std::string format_summary(const slave_info& s)
{
    std::string out;
    addf(out, "== chip %d", s.chip);
    if (s.started) {
        const slave_config& c = s.config;
        addf(out, ": pid %d %s; %s %d %d %d (cameras %d..%d)", static_cast<int>(s.pid),
             describe_status(s.exit_status).c_str(), c.role.c_str(), c.cam_base, c.slave_cam, c.num_vin,
             c.cam_base, c.cam_base + c.slave_cam - 1);
    } else {
        out += ": not started by this master";
    }
    out += "\n";

    std::string open, closed;
    uint32_t conns = 0;
    for (int k = 0; k < NUM_PORTS; ++k) {
        std::string& list = s.ports[k].open ? open : closed;
        list += ' ';
        list += std::to_string(PORT_CAL + k);
        conns += s.ports[k].connections;
    }
    addf(out, "   %-12s open:%s%s%s; %u connection(s), %u handshake(s)\n", "ports",
         open.empty() ? " none" : open.c_str(), closed.empty() ? "" : "; closed:", closed.c_str(), conns,
         s.handshakes);

    if (s.first_seen) {
        int opened = __builtin_popcount(s.ports_open_at_first);
        addf(out, "   %-12s cmd %#x%s, with %d of 6 ports open, %.3f ms after the last of them\n",
             "first on 102", s.first_head.cmd, s.first_head.cmd == CMD_ANNOUNCE ? " (the announcement)" : "",
             opened, static_cast<double>(s.first_after_ports.count()) / 1000.0);
    } else {
        addf(out, "   %-12s nothing yet\n", "first on 102");
    }
    addf(out, "   %-12s 0x%08x 0x%08x 0x%08x 0x%08x, %s\n", "windows", s.windows[0], s.windows[1], s.windows[2],
         s.windows[3], s.windows_set ? "set" : "not set");
    if (s.have_dma_info)
        addf(out, "   %-12s dma_index %u: 0x%08x 0x%08x 0x%08x 0x%08x\n", "local bufs", s.dma_info.dma_index,
             s.dma_info.addr[0], s.dma_info.addr[1], s.dma_info.addr[2], s.dma_info.addr[3]);

    addf(out, "   %-12s %llu poll(s), %llu failed", "status", static_cast<unsigned long long>(s.status_polls),
         static_cast<unsigned long long>(s.status_failures));
    if (s.have_status) {
        const status_t& st = s.status;
        addf(out, "; heartbit %u, clock %u, media time %llu us, heartbeats vdec %u jpeg %u\n", st.heartbit,
             st.clock, static_cast<unsigned long long>(st.media_pts), st.heart_vdec, st.heart_jpeg);
        addf(out, "   %-12s %u %u %u %u %u %u %u %u\n", "frame rates", st.fps[0], st.fps[1], st.fps[2], st.fps[3],
             st.fps[4], st.fps[5], st.fps[6], st.fps[7]);
    } else {
        out += "\n";
    }

    const slave_stats& t = s.stats;
    kind_line(out, "records", t.record, "frame(s)");
    kind_line(out, "network", t.network, "frame(s)");
    kind_line(out, "snapshots", t.jpeg, "picture(s)");
    addf(out, "   %-12s %llu report(s), %llu moved cell(s), %llu bad", "motion",
         static_cast<unsigned long long>(t.motion.frames), static_cast<unsigned long long>(t.moved_cells),
         static_cast<unsigned long long>(t.motion.bad));
    if (!t.motion_by_cam.empty()) {
        out += "; per camera";
        for (const auto& [cam, n] : t.motion_by_cam)
            addf(out, " %u:%llu", cam, static_cast<unsigned long long>(n));
    }
    out += "\n";
    addf(out, "   %-12s %llu sent, %zu waiting; %llu stray reply(ies), %llu message(s) that were no notification\n",
         "acks", static_cast<unsigned long long>(s.acks_sent), s.acks_pending,
         static_cast<unsigned long long>(s.stray_replies), static_cast<unsigned long long>(t.other_bad));

    if (!t.streams.empty()) {
        addf(out, "   streams\n     %-9s %-12s %8s %12s %6s %6s %11s %4s\n", "kind", "stream", "frames", "bytes", "key",
             "gaps", "size", "fps");
        for (const auto& [id, st] : t.streams) {
            char size[24];
            std::snprintf(size, sizeof(size), "%ux%u", st.width, st.height);
            addf(out, "     %-9s %-12s %8llu %12llu %6llu %6llu %11s %4u\n", kind_name(id.kind),
                 stream_label(id).c_str(), static_cast<unsigned long long>(st.frames),
                 static_cast<unsigned long long>(st.bytes), static_cast<unsigned long long>(st.key_frames),
                 static_cast<unsigned long long>(st.gaps), id.kind == stream_kind::jpeg ? "-" : size, st.fps);
        }
    }
    if (!t.last_bad.empty()) {
        out += "   bad records (latest last)\n";
        for (const std::string& b : t.last_bad)
            addf(out, "     %s\n", b.c_str());
    }
    return out;
}

}  // namespace tmaster
