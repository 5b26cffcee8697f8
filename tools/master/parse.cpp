#include "master/parse.h"

#include <bit>
#include <cstdarg>
#include <cstdio>

namespace tmaster {

namespace {

std::string vformat(const char* fmt, va_list ap)
{
    char line[256];
    std::vsnprintf(line, sizeof(line), fmt, ap);
    return line;
}

// Checks the window index and byte count common to the three window
// transfers; rejects the batch when either cannot be used.
bool check_window(findings& f, const window_set& windows, uint32_t window, uint32_t bytes,
                  uint32_t expected_window, uint32_t min_bytes)
{
    if (window >= NUM_WINDOWS) {
        f.reject("names window %u; a slave has windows 0..3", window);
        return false;
    }
    if (window != expected_window)
        f.add("names window %u; this kind travels in window %u", window, expected_window);
    size_t size = windows[window].size();
    if (bytes > size) {
        f.reject("claims %u bytes written; the window holds %zu", bytes, size);
        return false;
    }
    if (bytes < min_bytes) {
        f.reject("claims %u bytes written; at least %u expected", bytes, min_bytes);
        return false;
    }
    return true;
}

}  // namespace

void findings::add(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    problems.push_back(vformat(fmt, ap));
    va_end(ap);
}

void findings::reject(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    problems.push_back(vformat(fmt, ap));
    va_end(ap);
    rejected = true;
}

std::span<const uint8_t> written_bytes(const window_set& windows, uint32_t window, uint32_t bytes)
{
    if (window >= NUM_WINDOWS)
        return {};
    std::span<const uint8_t> w = windows[window];
    return w.first(bytes < w.size() ? bytes : w.size());
}

record_batch parse_record(std::span<const uint8_t> payload, const window_set& windows)
{
    record_batch r;
    findings& f = r.check;
    if (payload.size() < sizeof(record_note_t)) {
        f.reject("record notification of %zu payload bytes; 16 expected", payload.size());
        return r;
    }
    r.note = load_at<record_note_t>(payload, 0);
    if (!check_window(f, windows, r.note.window, r.note.bytes, RECORD_WINDOW, EBUF_HEAD_SIZE))
        return r;
    std::span<const uint8_t> rec = windows[r.note.window].first(r.note.bytes);

    r.num_mmd = load_at<int32_t>(rec, offsetof(ebuf_head_t, num_mmd));
    r.buf_off = load_at<int32_t>(rec, offsetof(ebuf_head_t, buf_off));
    r.buf_size = load_at<int32_t>(rec, offsetof(ebuf_head_t, buf_size));
    if (r.num_mmd < 0 || r.num_mmd > EBUF_MAX_FRAMES) {
        f.reject("num_mmd %d outside 0..%d", r.num_mmd, EBUF_MAX_FRAMES);
        return r;
    }
    if (r.buf_off < 0 || EBUF_HEAD_SIZE + static_cast<uint64_t>(r.buf_off) > r.note.bytes) {
        f.reject("buf_off %d past the %u bytes written", r.buf_off, r.note.bytes);
        return r;
    }
    if (EBUF_HEAD_SIZE + static_cast<uint64_t>(r.buf_off) != r.note.bytes)
        f.add("%u bytes written for a header and %d data bytes", r.note.bytes, r.buf_off);
    if (r.buf_off > r.buf_size)
        f.add("buf_off %d above buf_size %d", r.buf_off, r.buf_size);
    if (r.note.frames != static_cast<uint32_t>(r.num_mmd))
        f.add("notification counts %u frames, the record %d", r.note.frames, r.num_mmd);

    r.frames.reserve(static_cast<size_t>(r.num_mmd));
    for (int k = 0; k < r.num_mmd; ++k) {
        record_frame fr{};
        fr.entry = load_at<mmd_t>(rec, offsetof(ebuf_head_t, mmd) + sizeof(mmd_t) * static_cast<size_t>(k));
        const mmd_t& e = fr.entry;
        if (static_cast<uint64_t>(e.data) + e.len > static_cast<uint64_t>(r.buf_off)) {
            f.add("frame %d: data %u + len %u past buf_off %d", k, e.data, e.len, r.buf_off);
            continue;
        }
        fr.time = load_at<uint32_t>(rec, offsetof(ebuf_head_t, mmd_time) + 4u * static_cast<size_t>(k));
        fr.mday = rec[offsetof(ebuf_head_t, mmd_mday) + static_cast<size_t>(k)];
        fr.attr = rec[offsetof(ebuf_head_t, mmd_attr) + static_cast<size_t>(k)];
        fr.offset = EBUF_HEAD_SIZE + e.data;
        if (fr.mday < 1 || fr.mday > 31)
            f.add("frame %d: day of the month %u", k, fr.mday);
        if (e.sec_of_day >= 86400)
            f.add("frame %d: second of the day %u", k, e.sec_of_day);
        if (e.low > 1)
            f.add("frame %d: low flag %u", k, e.low);
        if (e.const12 != 2 || e.const13 != 2)
            f.add("frame %d: constant bytes %u %u, 2 2 expected", k, e.const12, e.const13);
        r.frames.push_back(fr);
    }
    return r;
}

network_batch parse_network(std::span<const uint8_t> payload, const window_set& windows)
{
    network_batch b;
    findings& f = b.check;
    if (payload.size() < offsetof(network_note_t, stream)) {
        f.reject("network notification of %zu payload bytes; 140 expected", payload.size());
        return b;
    }
    network_note_t note = load_prefix<network_note_t>(payload);
    b.window = note.window;
    b.bytes = note.bytes;
    b.count = note.frames;
    if (note.frames > NET_MAX_FRAMES) {
        f.reject("%u frames; at most %d fit a notification", note.frames, NET_MAX_FRAMES);
        return b;
    }
    if (payload.size() < offsetof(network_note_t, stream) + note.frames) {
        f.reject("%u frames but only %zu stream bytes", note.frames,
                 payload.size() - offsetof(network_note_t, stream));
        return b;
    }
    if (!check_window(f, windows, note.window, note.bytes, NETWORK_WINDOW, 0))
        return b;
    std::span<const uint8_t> data = windows[note.window].first(note.bytes);

    b.frames.reserve(note.frames);
    uint64_t off = 0;
    for (uint32_t k = 0; k < note.frames; ++k) {
        if (off + sizeof(nbuf_desc_t) > note.bytes) {
            f.add("frame %u: descriptor at %llu past the %u bytes written", k,
                  static_cast<unsigned long long>(off), note.bytes);
            return b;
        }
        network_frame fr{};
        fr.stream = note.stream[k];
        fr.desc = load_at<nbuf_desc_t>(data, off);
        fr.offset = static_cast<uint32_t>(off + sizeof(nbuf_desc_t));
        if (fr.offset + static_cast<uint64_t>(fr.desc.len) > note.bytes) {
            f.add("frame %u: %u bytes at %u past the %u bytes written", k, fr.desc.len, fr.offset,
                  note.bytes);
            return b;
        }
        const nbuf_desc_t& d = fr.desc;
        if (d.mon < 1 || d.mon > 12 || d.mday < 1 || d.mday > 31)
            f.add("frame %u: date %u-%u-%u", k, d.year, d.mon, d.mday);
        if (d.msec >= 86400000u)
            f.add("frame %u: millisecond of the day %u", k, d.msec);
        if (d.const17 != 1 || d.const18 != 2)
            f.add("frame %u: constant bytes %u %u, 1 2 expected", k, d.const17, d.const18);
        b.frames.push_back(fr);
        off = fr.offset + static_cast<uint64_t>(d.len);
    }
    if (off != note.bytes)
        f.add("frames end at %llu; %u bytes written", static_cast<unsigned long long>(off), note.bytes);
    return b;
}

jpeg_batch parse_jpeg(std::span<const uint8_t> payload, const window_set& windows)
{
    jpeg_batch b;
    findings& f = b.check;
    if (payload.size() < offsetof(jpeg_note_t, stream)) {
        f.reject("snapshot notification of %zu payload bytes; 212 expected", payload.size());
        return b;
    }
    jpeg_note_t note = load_prefix<jpeg_note_t>(payload);
    b.window = note.window;
    b.bytes = note.bytes;
    b.count = note.count;
    if (note.count > JPG_MAX_PICTURES) {
        f.reject("%u pictures; at most %d fit a notification", note.count, JPG_MAX_PICTURES);
        return b;
    }
    if (payload.size() < offsetof(jpeg_note_t, desc) + sizeof(jpg_desc_t) * note.count) {
        f.reject("%u pictures but the payload has %zu bytes", note.count, payload.size());
        return b;
    }
    if (!check_window(f, windows, note.window, note.bytes, JPEG_WINDOW, 0))
        return b;

    uint64_t expected = 0;
    for (uint32_t k = 0; k < note.count; ++k) {
        const jpg_desc_t& d = note.desc[k];
        if (static_cast<uint64_t>(d.data) + d.len > note.bytes) {
            f.add("picture %u: %u bytes at %u past the %u bytes written", k, d.len, d.data, note.bytes);
            continue;
        }
        if (d.data != expected)
            f.add("picture %u at %u; the pictures before it end at %llu", k, d.data,
                  static_cast<unsigned long long>(expected));
        expected = static_cast<uint64_t>(d.data) + d.len;
        b.pictures.push_back({note.stream[k], d});
    }
    if (b.pictures.size() == note.count && expected != note.bytes)
        f.add("pictures end at %llu; %u bytes written", static_cast<unsigned long long>(expected),
              note.bytes);
    return b;
}

motion_report parse_motion(std::span<const uint8_t> payload)
{
    motion_report m;
    if (payload.size() < sizeof(motion_note_t)) {
        m.check.reject("motion report of %zu payload bytes; 132 expected", payload.size());
        return m;
    }
    m.note = load_at<motion_note_t>(payload, 0);
    for (int r = 0; r < MD_ROWS; ++r) {
        if (r >= MD_CELL_ROWS && m.note.rows[r] != 0)
            m.check.add("row %d of the bitmap is %08x; rows from %d carry no cells", r, m.note.rows[r],
                        MD_CELL_ROWS);
        else
            m.moved_cells += std::popcount(m.note.rows[r]);
    }
    return m;
}

}  // namespace tmaster
