#include "cal/cal_buf.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "cal/cal_log.h"

namespace {

constexpr size_t k_align = 16;

// One pool: its lock and its running totals. The totals are read without
// the lock (a single word each) by the producers' ceiling checks.
struct pool_t {
    std::mutex mutex;
    std::atomic<int> total_size{0};
    std::atomic<int> cnt{0};
};

pool_t g_ebuf_pool;
pool_t g_nbuf_pool;
pool_t g_dbuf_pool;

void* aligned_block(size_t bytes)
{
    void* p = nullptr;
    if (posix_memalign(&p, k_align, bytes == 0 ? 1 : bytes) != 0)
        return nullptr;
    return p;
}

void put_u32(unsigned char* out, uint32_t v)
{
    std::memcpy(out, &v, 4);  // the records are little-endian, as is every target
}

void put_u16(unsigned char* out, uint16_t v)
{
    std::memcpy(out, &v, 2);
}

}  // namespace

void nbuf_desc_to_wire(const nbuf_desc_t& d, unsigned char out[NBUF_DESC_WIRE_SIZE])
{
    put_u16(out + 0, d.year);
    out[2] = d.mon;
    out[3] = d.mday;
    put_u32(out + 4, d.msec);
    put_u16(out + 8, d.reserved8);
    put_u16(out + 10, d.key);
    put_u16(out + 12, d.width);
    put_u16(out + 14, d.height);
    out[16] = d.fps;
    out[17] = d.const17;
    out[18] = d.const18;
    out[19] = d.reserved19;
    put_u32(out + 20, d.len);
    put_u32(out + 24, ptr32(d.data));
}

ebuf_t* ebuf_malloc(int size)
{
    std::lock_guard lock(g_ebuf_pool.mutex);
    if (size < 0)
        CAL_FATAL("buf_size<0\n");
    auto* e = static_cast<ebuf_t*>(aligned_block(EBUF_HEADER_SIZE + static_cast<size_t>(size)));
    if (e == nullptr)
        return nullptr;
    e->buf_size = size;
    e->buf_off = 0;
    e->num_mmd = 0;
    g_ebuf_pool.total_size += EBUF_HEADER_SIZE + size;
    g_ebuf_pool.cnt += 1;
    return e;
}

void ebuf_free(ebuf_t* ebuf)
{
    if (ebuf == nullptr)
        return;
    std::lock_guard lock(g_ebuf_pool.mutex);
    if (ebuf->buf_size < 0)
        CAL_FATAL("buf_size<0\n");
    g_ebuf_pool.total_size -= EBUF_HEADER_SIZE + ebuf->buf_size;
    g_ebuf_pool.cnt -= 1;
    std::free(ebuf);
}

int ebuf_get_total_size()
{
    return g_ebuf_pool.total_size.load(std::memory_order_relaxed);
}

int ebuf_get_cnt()
{
    return g_ebuf_pool.cnt.load(std::memory_order_relaxed);
}

unsigned char* nbuf_malloc(int size)
{
    std::lock_guard lock(g_nbuf_pool.mutex);
    if (size < 0)
        CAL_FATAL("buf_size<0\n");
    auto* b = static_cast<unsigned char*>(aligned_block(static_cast<size_t>(size)));
    if (b == nullptr)
        return nullptr;
    g_nbuf_pool.total_size += size;
    g_nbuf_pool.cnt += 1;
    return b;
}

void nbuf_free(unsigned char* block, int size)
{
    if (block == nullptr)
        return;
    std::lock_guard lock(g_nbuf_pool.mutex);
    g_nbuf_pool.total_size -= size;
    g_nbuf_pool.cnt -= 1;
    std::free(block);
}

int nbuf_get_total_size()
{
    return g_nbuf_pool.total_size.load(std::memory_order_relaxed);
}

int nbuf_get_cnt()
{
    return g_nbuf_pool.cnt.load(std::memory_order_relaxed);
}

dbuf_t* dbuf_malloc(int size)
{
    std::lock_guard lock(g_dbuf_pool.mutex);
    if (size < 0)
        CAL_FATAL("buf_size<0\n");
    auto* d = static_cast<dbuf_t*>(aligned_block(DBUF_HEADER_SIZE + static_cast<size_t>(size)));
    if (d == nullptr)
        return nullptr;
    d->buf_size = size;
    d->num_vdec = 0;
    d->buf_off = 0;
    d->norec = 0;
    d->skip_show = 0;
    g_dbuf_pool.total_size += DBUF_HEADER_SIZE + size;
    return d;
}

void dbuf_free(dbuf_t* dbuf)
{
    if (dbuf == nullptr)
        return;
    std::lock_guard lock(g_dbuf_pool.mutex);
    if (dbuf->buf_size < 0)
        CAL_FATAL("buf_size<0\n");
    g_dbuf_pool.total_size -= DBUF_HEADER_SIZE + dbuf->buf_size;
    std::free(dbuf);
}

int dbuf_get_total_size()
{
    return g_dbuf_pool.total_size.load(std::memory_order_relaxed);
}

void ebuf_dump(const ebuf_t* ebuf)
{
    if (ebuf == nullptr)
        return;
    TRACE("========= ebuf:%08x ==========\n", ptr32(ebuf));
    TRACE("num_mmd:%d\n", ebuf->num_mmd);
    TRACE("buf_off:%d\n", ebuf->buf_off);
    TRACE("buf_size:%d\n", ebuf->buf_size);
    TRACE("buf:%08x\n", ptr32(ebuf->buf));
    TRACE("=================================");
}

void ebuf_dump()
{
    TRACE("ebuf_total_size:%d ebuf_cnt:%d\n", ebuf_get_total_size(), ebuf_get_cnt());
}

void dbuf_dump(const dbuf_t* dbuf)
{
    if (dbuf == nullptr)
        return;
    TRACE("========= dbuf:%08x ==========\n", ptr32(dbuf));
    TRACE("num_vdec:%d\n", dbuf->num_vdec);
    TRACE("buf_off:%d\n", dbuf->buf_off);
    TRACE("buf_size:%d\n", dbuf->buf_size);
    TRACE("buf:%08x\n", ptr32(dbuf->buf));
    TRACE("=================================");
}

void dbuf_dump()
{
    TRACE("cnt:%d dbuf_total_size:%d\n", 0, dbuf_get_total_size());
}
