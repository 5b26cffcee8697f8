// Bulk transfers to the master: stage the data in the local buffer of its
// kind, one DMA into the master's window, the notification on the port of
// its kind, then wait for the master's answer, which keeps the window from
// being written again before the master has read it.
#include <cstdlib>
#include <cstring>

#include "cal/cal.h"
#include "cal/cal_log.h"
#include "msg/cal_hsc.h"
#include "platform/hi_mpi_pciv.h"
#include "platform/os.h"

namespace {

constexpr int k_master = 0;

// The window index and address for local buffer k, or false while the
// master has not given its windows (nothing may be sent then).
bool xfer_ready(const cal_hsc_t* hsc, int k, int* window, uint32_t* window_addr)
{
    int idx = hsc->dma_index.load() + k;
    if (idx < 0 || idx >= HSC_NUM_BUF)
        return false;
    uint32_t host = hsc->host_phys_addr[idx].load();
    if (hsc->virt_addr[k] == nullptr || hsc->phys_addr[k] == 0 || host == 0)
        return false;
    *window = idx;
    *window_addr = host;
    return true;
}

void dma_to_master(const cal_hsc_t* hsc, int k, uint32_t window_addr, uint32_t size)
{
    pciv_dma_block_t block{hsc->phys_addr[k], window_addr, size};
    pciv_dma_task_t task{1, 0, &block};
    if (int32_t r = HI_MPI_PCIV_DmaTask(&task))
        TRACE("HI_MPI_PCIV_DmaTask err:%#x\n", static_cast<unsigned>(r));
}

// Notification and the master's answer. A failed write is not reported: the
// wait for the answer follows regardless.
int notify(int port, hsc_msg_t* msg)
{
    int r = pciv_write_msg(k_master, port, msg);
    pciv_wait_msg(k_master, port, -1);
    pciv_read_msg(k_master, port, msg);
    return r;
}

cal_hsc_t* checked_hsc(cal_t* cal)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    CAL_CHECK_OBJ(cal->hsc, cal_hsc_t, "hsc is NULL\n");
    return cal->hsc;
}

// A batch is taken whole or not at all: its count, its total and every
// item's bytes (plus `extra` bytes of descriptor per item in the window) are
// checked before anything is copied or released. The total must be what the
// items fill in the window: a larger one would send stale bytes after them,
// a smaller one would cut them off.
template <typename Desc>
bool batch_acceptable(const int* channels, const Desc* descs, int n, int max_n, int total, uint32_t extra)
{
    if (n < 0 || n > max_n || (n > 0 && (channels == nullptr || descs == nullptr)) || total < 0 ||
        total > static_cast<int>(HSC_BUF_SIZE)) {
        TRACE("refused.. n:%d total:%d\n", n, total);
        return false;
    }
    uint64_t need = 0;
    for (int k = 0; k < n; ++k) {
        if (descs[k].data == nullptr && descs[k].len != 0) {
            TRACE("refused.. item %d has no data\n", k);
            return false;
        }
        need += extra + uint64_t{descs[k].len};
    }
    if (need > HSC_BUF_SIZE) {
        TRACE("refused.. n:%d bytes:%llu > %u\n", n, static_cast<unsigned long long>(need), HSC_BUF_SIZE);
        return false;
    }
    if (need != static_cast<uint64_t>(total)) {
        TRACE("refused.. n:%d total:%d but the items fill %llu bytes\n", n, total,
              static_cast<unsigned long long>(need));
        return false;
    }
    return true;
}

template <typename T>
void put_payload(hsc_msg_t* msg, uint32_t cmd, const T& payload)
{
    static_assert(sizeof(T) <= PCIV_MSG_MAX_PAYLOAD);
    msg->cmd = cmd;
    msg->len = sizeof(T);
    std::memcpy(msg->data, &payload, sizeof(T));
}

}  // namespace

int cal_hsc_send_ebuf(cal_t* cal, const ebuf_t* ebuf)
{
    cal_hsc_t* hsc = checked_hsc(cal);
    int window;
    uint32_t window_addr;
    if (!xfer_ready(hsc, HSC_BUF_ENCR, &window, &window_addr))
        return -1;
    if (ebuf == nullptr) {
        TRACE("ebuf is NULL\n");
        return -1;
    }
    if (ebuf->num_mmd < 0 || ebuf->num_mmd > EBUF_MAX_MMD || ebuf->buf_off < 0 || ebuf->buf_off > ebuf->buf_size ||
        ebuf->buf_off > static_cast<int>(HSC_BUF_SIZE) - EBUF_HEADER_SIZE) {
        TRACE("refused.. num_mmd:%d buf_off:%d buf_size:%d\n", ebuf->num_mmd, ebuf->buf_off, ebuf->buf_size);
        return -1;
    }

    uint32_t size = static_cast<uint32_t>(EBUF_HEADER_SIZE + ebuf->buf_off);
    std::memcpy(hsc->virt_addr[HSC_BUF_ENCR], ebuf, size);
    // In the master's copy each frame's data word is its offset in buf. The
    // frames lie inside the block, so the low 32 bits give it exactly.
    auto* copy = reinterpret_cast<ebuf_t*>(hsc->virt_addr[HSC_BUF_ENCR]);
    const uint32_t base = ptr32(ebuf->buf);
    for (int k = 0; k < ebuf->num_mmd; ++k)
        copy->mmd[k].data = ebuf->mmd[k].data - base;

    dma_to_master(hsc, HSC_BUF_ENCR, window_addr, size);

    hsc_msg_t msg{};
    put_payload(&msg, HSC_MSG_ENCR,
                hsc_encr_note_t{static_cast<uint32_t>(window), size, static_cast<uint32_t>(ebuf->num_mmd), 0});
    notify(MSGPORT_ENCR, &msg);
    _calc_dma(hsc, static_cast<int>(size), 0, 0);
    return 0;
}

int cal_hsc_send_nbuf(cal_t* cal, const int* channels, const nbuf_desc_t* descs, int n, int total)
{
    cal_hsc_t* hsc = checked_hsc(cal);
    int window;
    uint32_t window_addr;
    if (!xfer_ready(hsc, HSC_BUF_ENCN, &window, &window_addr))
        return -1;

    if (!batch_acceptable(channels, descs, n, HSC_ENCN_MAX_FRAMES, total, NBUF_DESC_WIRE_SIZE))
        return -1;

    hsc_encn_note_t note{};
    unsigned char* local = hsc->virt_addr[HSC_BUF_ENCN];
    uint32_t offset = 0;
    for (int k = 0; k < n; ++k) {
        const nbuf_desc_t& d = descs[k];
        note.stream[k] = static_cast<uint8_t>(channels[k]);
        nbuf_desc_to_wire(d, local + offset);
        if (d.len != 0)
            std::memcpy(local + offset + NBUF_DESC_WIRE_SIZE, d.data, d.len);
        nbuf_free(d.data, static_cast<int>(d.len));
        offset += NBUF_DESC_WIRE_SIZE + d.len;
    }

    dma_to_master(hsc, HSC_BUF_ENCN, window_addr, static_cast<uint32_t>(total));

    note.window = static_cast<uint32_t>(window);
    note.bytes = static_cast<uint32_t>(total);
    note.count = static_cast<uint32_t>(n);
    hsc_msg_t msg{};
    put_payload(&msg, HSC_MSG_ENCN, note);
    notify(MSGPORT_ENCN, &msg);
    _calc_dma(hsc, 0, total, 0);
    return 0;
}

int cal_hsc_send_jpg(cal_t* cal, const int* channels, const jpg_desc_t* descs, int n, int total)
{
    cal_hsc_t* hsc = checked_hsc(cal);
    int window;
    uint32_t window_addr;
    if (!xfer_ready(hsc, HSC_BUF_JPG, &window, &window_addr))
        return -1;

    if (!batch_acceptable(channels, descs, n, HSC_JPG_MAX_PICS, total, 0))
        return -1;

    hsc_jpg_note_t note{};
    unsigned char* local = hsc->virt_addr[HSC_BUF_JPG];
    uint32_t offset = 0;
    for (int k = 0; k < n; ++k) {
        const jpg_desc_t& d = descs[k];
        note.stream[k] = static_cast<uint32_t>(channels[k]);
        if (d.len != 0)
            std::memcpy(local + offset, d.data, d.len);
        note.desc[k] = hsc_jpg_wire_desc_t{d.jpg_on, d.time, d.len, offset};
        std::free(d.data);
        offset += d.len;
    }

    dma_to_master(hsc, HSC_BUF_JPG, window_addr, static_cast<uint32_t>(total));

    note.window = static_cast<uint32_t>(window);
    note.bytes = static_cast<uint32_t>(total);
    note.count = static_cast<uint32_t>(n);
    hsc_msg_t msg{};
    put_payload(&msg, HSC_MSG_JPG, note);
    notify(MSGPORT_ENCJPG, &msg);
    _calc_dma(hsc, 0, 0, total);
    return 0;
}

int cal_hsc_send_md(cal_t* cal, int cam, const unsigned char* body)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    if (body == nullptr) {
        TRACE("body is NULL\n");
        return -1;
    }
    hsc_md_note_t note;
    note.cam = cam;
    std::memcpy(note.body, body, sizeof(note.body));
    hsc_msg_t msg{};
    put_payload(&msg, HSC_MSG_VIN, note);
    return notify(MSGPORT_VIN, &msg);
}

int cal_hsc_read_dec(cal_t* cal, hsc_msg_t* msg, int, unsigned char** landing)
{
    cal_hsc_t* hsc = checked_hsc(cal);
    *landing = nullptr;
    pciv_wait_msg(k_master, MSGPORT_DEC, -1);
    if (pciv_read_msg(k_master, MSGPORT_DEC, msg) != 0)
        return -1;
    // What did not arrive reads as zeros.
    const uint32_t got = msg->len < PCIV_MSG_MAX_PAYLOAD ? msg->len : PCIV_MSG_MAX_PAYLOAD;
    std::memset(msg->data + got, 0, sizeof(msg->data) - got);
    uint32_t req[2];
    std::memcpy(req, msg->data, sizeof(req));
    const uint32_t bytes = req[0], window = req[1];

    bool pulled = false;
    if (bytes > HSC_BUF_SIZE || window >= HSC_NUM_BUF) {
        TRACE("refused.. bytes:%u window:%u\n", bytes, window);
    } else if (hsc->virt_addr[HSC_BUF_DEC] == nullptr || hsc->phys_addr[HSC_BUF_DEC] == 0 ||
               hsc->host_phys_addr[window].load() == 0) {
        TRACE("refused.. window %u not set\n", window);
    } else {
        pciv_dma_block_t block{hsc->host_phys_addr[window].load(), hsc->phys_addr[HSC_BUF_DEC], bytes};
        pciv_dma_task_t task{1, 1, &block};
        if (int32_t r = HI_MPI_PCIV_DmaTask(&task))
            TRACE("HI_MPI_PCIV_DmaTask err:%#x\n", static_cast<unsigned>(r));
        pulled = true;
    }
    msg->id = 0;
    msg->result = pulled ? 0 : -1;
    // The master is held while the decoder is behind, never for long.
    for (int i = 0; pulled && i < 100 && cal_dec_num_dbuf(cal) > 2; ++i)
        os_usleep(10000);
    pciv_write_msg(k_master, MSGPORT_DEC, msg);
    if (pulled)
        *landing = hsc->virt_addr[HSC_BUF_DEC];
    return 0;
}
