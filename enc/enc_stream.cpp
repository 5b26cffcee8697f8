// The encoder thread's frame routing: every encoded frame gets its second
// and its slot within that second, then goes into the record buffer of its
// slot (recording streams) or into a network frame of its own (network
// streams). A main recording frame is copied once, into its record buffer;
// its network copies are taken from there.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <utility>

#include "cal/cal.h"
#include "cal/cal_buf.h"
#include "cal/cal_log.h"
#include "cal/cal_time.h"
#include "cal/cal_tx.h"
#include "enc/cal_enc.h"
#include "platform/hi_mpi_venc.h"
#include "platform/os.h"

namespace {

constexpr uint64_t US_PER_SEC = 1000000;
constexpr int64_t MAX_SKEW_SEC = 60;   // frames further from the wall clock are not used
constexpr int MAIN_GAP_SEC = 1;        // a main record buffer spans at most this from its first frame
constexpr int LOW_GAP_SEC = 4;         // the shared low buffer
// Largest system frame rate whose slot number within a day fits an int.
constexpr int MAX_SYS_FPS = INT_MAX / 86400;

// Set while the record pool is at its ceiling, so that the start and the
// end of such a period are traced once each.
bool g_no_ebuf = false;

enum class route { rec, net, rec_low, net_low };

int sec_of_day(const struct tm& tm)
{
    return tm.tm_hour * 3600 + tm.tm_min * 60 + tm.tm_sec;
}

void local_time(struct tm* out, uint64_t sec)
{
    const time_t t = static_cast<time_t>(sec);
    cal_localtime(out, &t);
}

// Start of the frame slot that holds a time stamp, in us.
uint64_t slot_start(uint64_t msec, uint64_t period)
{
    return msec / 1000 * US_PER_SEC + (msec % 1000 * 1000 / period) * period;
}

// Bytes of a frame: both pieces of every pack. -1 when a piece claims bytes
// at no address.
int64_t frame_size(const venc_stream_t& st)
{
    int64_t size = 0;
    for (uint32_t k = 0; k < st.pack_count; ++k) {
        for (int i = 0; i < 2; ++i) {
            if (st.pack[k].len[i] != 0 && st.pack[k].addr[i] == nullptr)
                return -1;
            size += st.pack[k].len[i];
        }
    }
    return size;
}

// Copies the pieces of the packs, in order, to dst.
void copy_packs(unsigned char* dst, const venc_stream_t& st)
{
    for (uint32_t k = 0; k < st.pack_count; ++k) {
        for (int i = 0; i < 2; ++i) {
            const uint32_t len = st.pack[k].len[i];
            if (len != 0) {
                std::memcpy(dst, st.pack[k].addr[i], len);
                dst += len;
            }
        }
    }
}

// A network block until it is posted: freed here unless the queue took it.
// On a failed post the queue has freed it already.
class nbuf_block {
public:
    explicit nbuf_block(int size) : data_(nbuf_malloc(size)), size_(size) {}
    ~nbuf_block() { nbuf_free(data_, size_); }
    nbuf_block(const nbuf_block&) = delete;
    nbuf_block& operator=(const nbuf_block&) = delete;

    unsigned char* data() const { return data_; }

    // Posts the frame; the block belongs to the queue from here on, also
    // when the post fails. Returns the post's result.
    int post(cal_t* cal, int ch, nbuf_desc_t desc, int offset)
    {
        desc.data = std::exchange(data_, nullptr);
        desc.len = static_cast<uint32_t>(size_);
        return cal_notify_nbuf(cal, ch, desc, offset);
    }

private:
    unsigned char* data_;
    int size_;
};

// The descriptor of a network frame with index fi, from the stream record
// that timed it.
nbuf_desc_t net_desc(const cal_enc_t* enc, const cal_enc_stream_t& s, int fi, int key)
{
    nbuf_desc_t d{};
    d.year = static_cast<uint16_t>(s.tm.tm_year + 1900);
    d.mon = static_cast<uint8_t>(s.tm.tm_mon + 1);
    d.mday = static_cast<uint8_t>(s.tm.tm_mday);
    d.msec = static_cast<uint32_t>(1000 * static_cast<int64_t>(s.sec_of_day) +
                                   static_cast<int64_t>(fi) * enc->period / 1000);
    d.key = static_cast<uint16_t>(key);
    d.width = static_cast<uint16_t>(kel_word_load(s.width));
    d.height = static_cast<uint16_t>(kel_word_load(s.height));
    d.fps = static_cast<uint8_t>(kel_word_load(s.fps));
    d.const17 = 1;
    d.const18 = 2;
    return d;
}

// A network frame copied from src. Leaves the stream waiting for a key
// frame when the pool is at its ceiling, the block cannot be had, or the
// post fails: the master must never get a frame whose references it lacks.
void send_net_copy(cal_enc_t* enc, int ch, const cal_enc_stream_t& s, int fi, int key, const unsigned char* src,
                   int size, int offset, int* wait_key)
{
    if (nbuf_get_total_size() >= NBUF_TOTAL_LIMIT) {
        kel_word_store(*wait_key, 1);
        return;
    }
    nbuf_block block(size);
    if (block.data() == nullptr) {
        kel_word_store(*wait_key, 1);
        return;
    }
    std::memcpy(block.data(), src, static_cast<size_t>(size));
    if (block.post(enc->cal, ch, net_desc(enc, s, fi, key), offset) != 0)
        kel_word_store(*wait_key, 1);
}

// Empties a record slot and posts what it held.
void hand_over(cal_enc_t* enc, int slot)
{
    if (ebuf_t* cur = std::exchange(enc->ebuf[slot], nullptr))
        cal_notify_ebuf(enc->cal, cur);
}

bool valid_slot(const cal_enc_t* enc, int slot)
{
    return (slot >= 0 && slot < enc->num) || slot == 2 * enc->num;
}

// A recording frame (REC or REC LOW) into its record buffer; a REC frame
// also to the recording copy and the network copy when they are on.
int route_record(cal_enc_t* enc, route r, int ch, cal_enc_stream_t& s, const venc_stream_t& st, int fi, int key,
                 int64_t size)
{
    cal_t* cal = enc->cal;
    const int n = enc->num;
    s.byte_cnt = static_cast<int>(std::min<int64_t>(INT_MAX, s.byte_cnt + size));

    const uint32_t secs = static_cast<uint32_t>(s.abs_us / US_PER_SEC);
    const int slot = r == route::rec_low ? 2 * n : (n == 8 ? ch / 2 : ch);
    _check_ebuf(enc, slot, static_cast<int>(size), secs);
    ebuf_t* eb = enc->ebuf[slot];
    // The buffer _check_ebuf leaves always has room for the frame; should
    // that ever not hold, the frame is dropped rather than written past it.
    if (eb == nullptr || eb->num_mmd < 0 || eb->num_mmd >= ENC_EBUF_MAX_FRAMES ||
        eb->buf_off < 0 || eb->buf_off + size > eb->buf_size) {
        kel_word_store(s.wait_key, 1);
        kel_word_store(enc->copy_wait_key[ch], 1);
        return 0;
    }

    const int i = eb->num_mmd;
    unsigned char* data = eb->buf + eb->buf_off;
    ebuf_mmd_t& m = eb->mmd[i];
    m = {};
    m.cam = static_cast<uint8_t>(ch + cal->cam_base);
    m.frame_idx = static_cast<uint8_t>(fi);
    m.low = r == route::rec_low ? 1 : 0;
    m.key = static_cast<uint8_t>(key);
    m.width = static_cast<uint16_t>(kel_word_load(s.width));
    m.height = static_cast<uint16_t>(kel_word_load(s.height));
    m.fps = static_cast<uint8_t>(kel_word_load(s.fps));
    m.quality = static_cast<uint8_t>(kel_word_load(s.quality));
    m.const12 = 2;
    m.const13 = 2;
    m.sec_of_day = static_cast<uint32_t>(s.sec_of_day);
    m.len = static_cast<uint32_t>(size);
    m.data = ptr32(data);
    copy_packs(data, st);
    eb->buf_off += static_cast<int32_t>(size);
    eb->mmd_mday[i] = static_cast<uint8_t>(s.tm.tm_mday);
    eb->mmd_attr[i] = static_cast<uint8_t>(kel_word_load(s.attr));
    eb->mmd_time[i] = secs;
    eb->num_mmd = i + 1;

    if (r != route::rec)
        return 0;

    // The recording copy (kind 5), from the record buffer.
    if (kel_word_load(enc->copy_on[ch])) {
        if (key)
            kel_word_store(enc->copy_wait_key[ch], 0);
        if (!kel_word_load(enc->copy_wait_key[ch]))
            send_net_copy(enc, ch, s, fi, key, data, static_cast<int>(size), 2 * cal->num_vin,
                          &enc->copy_wait_key[ch]);
    }
    // The main network stream: copies of the REC frames, from the record
    // buffer, timed by the REC record.
    cal_enc_stream_t& net = enc->net[ch];
    if (kel_word_load(net.on)) {
        if (key)
            kel_word_store(net.wait_key, 0);
        if (!kel_word_load(net.wait_key))
            send_net_copy(enc, ch, s, fi, key, data, static_cast<int>(size), 0, &net.wait_key);
    }
    return 0;
}

}  // namespace

int _calc_timing(cal_enc_t* enc, cal_enc_stream_t* s, uint64_t msec, time_t now)
{
    CAL_CHECK_OBJ(enc, cal_enc_t, "enc is NULL\n");
    if (s == nullptr)
        return -1;
    const int64_t P = enc->period;
    const int64_t F = enc->fps;
    // Without a frame rate there are no slots to give.
    if (P <= 0 || F <= 0 || F > MAX_SYS_FPS)
        return -1;
    const uint64_t period = static_cast<uint64_t>(P);

    if (msec < s->last_msec) {
        // The stamps went backwards: start again from this one.
        const uint64_t t = slot_start(msec, period);
        local_time(&s->tm, t / US_PER_SEC);
        s->sec_of_day = sec_of_day(s->tm);
        s->abs_us = t;
        const uint64_t old = std::exchange(s->last_msec, msec);
        s->abs_bi = static_cast<int>(F * s->sec_of_day + static_cast<int64_t>(t % US_PER_SEC / period));
        CAL_LOG(7, "warning!! msec64:%lld old_msec64:%lld\n", static_cast<long long>(msec),
                static_cast<long long>(old));
        return -1;
    }

    // The slot that holds the stamp, at least one period after the
    // previous frame's.
    uint64_t cand = slot_start(msec, period);
    if (cand < s->abs_us + period)
        cand = s->abs_us + period;
    const uint64_t r = cand + period / 2;
    const uint64_t sec = r / US_PER_SEC;
    const int fi = static_cast<int>(r % US_PER_SEC / period);

    if (sec != s->abs_us / US_PER_SEC) {
        s->frame_cnt = 1;
        s->byte_cnt = 0;
    } else {
        s->frame_cnt += 1;
    }

    local_time(&s->tm, sec);
    const int d = sec_of_day(s->tm);
    if (d < s->sec_of_day) {
        CAL_LOG(7, "new date!! mmd_secs:%d old mmd_secs:%d\n", d, s->sec_of_day);
        s->abs_bi = -1;
    }
    s->sec_of_day = d;

    const int bi = static_cast<int>(F * d + fi);
    int result = fi;
    const int64_t skew = static_cast<int64_t>(now) - static_cast<int64_t>(sec);
    if (bi <= s->abs_bi) {
        CAL_LOG(7, "warning!! ch:%d abs_bi:%d old_abs_bi:%d\n", s->cam, bi, s->abs_bi);
        result = -1;
    } else if (skew > MAX_SKEW_SEC || skew < -MAX_SKEW_SEC) {
        CAL_LOG(7, "warning!! ch:%d cur_time:%u sec:%u\n", s->cam, static_cast<unsigned>(now),
                static_cast<unsigned>(sec));
        result = -1;
    }
    s->last_msec = msec;
    s->abs_bi = bi;
    s->abs_us = cand;
    return result;
}

int _check_ebuf(cal_enc_t* enc, int slot, int size, uint32_t secs)
{
    CAL_CHECK_OBJ(enc, cal_enc_t, "enc is NULL\n");
    if (!valid_slot(enc, slot) || size < 0)
        return -1;
    const uint32_t gap = slot < 2 * enc->num ? MAIN_GAP_SEC : LOW_GAP_SEC;
    ebuf_t* cur = enc->ebuf[slot];

    // Such a frame would need more than any buffer's data area.
    if (size > ENC_EBUF_NEED) {
        hand_over(enc, slot);
        return -1;
    }

    if (cur != nullptr) {
        const int frames = cur->num_mmd;
        const uint32_t first = cur->mmd_time[0];
        const bool stale = frames > 0 && (std::max(secs, first) - std::min(secs, first) > gap ||
                                          first / 60 != secs / 60);
        if (frames <= ENC_EBUF_MAX_FRAMES - 1 && !stale &&
            static_cast<int64_t>(cur->buf_off) + size <= cur->buf_size)
            return 0;
        hand_over(enc, slot);
        if (ebuf_get_total_size() < EBUF_TOTAL_LIMIT)
            enc->ebuf[slot] = ebuf_malloc(ENC_EBUF_NEED);
        return 0;
    }

    if (ebuf_get_total_size() >= EBUF_TOTAL_LIMIT) {
        if (!g_no_ebuf) {
            CAL_LOG(7, "no buffer!! t:%u ebuf_total_size:%d ebuf_cnt:%d\n", secs, ebuf_get_total_size(),
                    ebuf_get_cnt());
            g_no_ebuf = true;
        }
        return 0;
    }
    enc->ebuf[slot] = ebuf_malloc(ENC_EBUF_NEED);
    if (g_no_ebuf) {
        CAL_LOG(7, "restore no buffer!! t:%u ebuf_total_size:%d ebuf_cnt:%d\n", secs, ebuf_get_total_size(),
                ebuf_get_cnt());
        g_no_ebuf = false;
    }
    return 0;
}

int _parse_enc_ebuf(cal_enc_t* enc, int v, const venc_stream_t* stream)
{
    CAL_CHECK_OBJ(enc, cal_enc_t, "enc is NULL\n");
    const int n = enc->num;
    if (n <= 0 || n > CAL_ENC_MAX_CAM || v < 0 || v >= 4 * n) {
        CAL_LOG(7, "warning!! v:%d num:%d\n", v, n);
        return -1;
    }
    if (stream == nullptr || stream->pack == nullptr || stream->pack_count == 0) {
        CAL_LOG(7, "warning!! v:%d no pack\n", v);
        return 0;
    }
    const venc_stream_t& st = *stream;
    const uint64_t msec = st.pack[0].pts / 1000;
    const int key = st.pack[0].data_type == H264E_NALU_SPS ? 1 : 0;
    const time_t now = os_time(nullptr);

    route r;
    int ch;
    cal_enc_stream_t* s;
    if (v < n) {
        r = route::rec, ch = v, s = &enc->rec[ch];
    } else if (v < 2 * n) {
        r = route::net, ch = v - n, s = &enc->net[ch];
    } else if (v < 3 * n) {
        r = route::rec_low, ch = v - 2 * n, s = &enc->rec_low[ch];
    } else {
        r = route::net_low, ch = v - 3 * n, s = &enc->net_low[ch];
    }
    const bool record = r == route::rec || r == route::rec_low;

    if (!kel_word_load(s->on))
        return 0;
    const int fi = _calc_timing(enc, s, msec, now);
    if (fi < 0 || fi >= enc->fps) {
        kel_word_store(s->wait_key, 1);
        return 0;
    }
    if (key)
        kel_word_store(s->wait_key, 0);
    if (kel_word_load(s->wait_key))
        return 0;

    const int64_t size = frame_size(st);
    if (size < 0) {
        CAL_LOG(7, "warning!! v:%d pack without data\n", v);
        kel_word_store(s->wait_key, 1);
        return 0;
    }
    const int64_t limit = record ? ENC_REC_FRAME_MAX : ENC_NET_FRAME_MAX;
    if (size > limit) {
        const int shown = static_cast<int>(std::min<int64_t>(size, INT_MAX));
        if (record)
            CAL_LOG(7, "Over ebuffer!! %d don't send data by pci express\n", shown);
        else
            CAL_LOG(7, "Over nbuffer!! %d don't send data by pci express\n", shown);
        kel_word_store(s->wait_key, 1);
        return -1;
    }
    if (record)
        return route_record(enc, r, ch, *s, st, fi, key, size);

    s->byte_cnt = static_cast<int>(std::min<int64_t>(INT_MAX, s->byte_cnt + size));
    if (nbuf_get_total_size() >= NBUF_TOTAL_LIMIT) {
        CAL_LOG(7, "NO Nbuffer!! nbuf_total_size:%d\n", nbuf_get_total_size());
        kel_word_store(s->wait_key, 1);
        return 0;
    }
    nbuf_block block(static_cast<int>(size));
    if (block.data() == nullptr) {
        kel_word_store(s->wait_key, 1);
        return 0;
    }
    copy_packs(block.data(), st);
    const int offset = r == route::net ? 0 : enc->cal->num_vin;
    if (block.post(enc->cal, ch, net_desc(enc, *s, fi, key), offset) != 0)
        kel_word_store(s->wait_key, 1);
    return 0;
}
