// Scene loops: their keys, lengths and cache files.
#include "platform/sim/h264_loop.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "platform/sim/h264_codec.h"

namespace {

constexpr char k_magic[8] = {'T', 'S', 'I', 'M', 'L', 'O', 'O', 'P'};
constexpr uint32_t k_version = 1;

// The cache file: this header, the access units, the data.
struct loop_file_head {
    char magic[8];
    uint32_t version;
    uint32_t au_count;
    uint32_t data_len;
    uint32_t reserved;
};
static_assert(sizeof(loop_file_head) == 24);

constexpr uint32_t k_max_data = 256u << 20;

int64_t now_us()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

bool valid(const sim_h264_loop& loop)
{
    if (loop.aus.empty() || loop.aus.size() != sim_loop_frames(loop.key) || !loop.aus[0].idr)
        return false;
    for (const sim_loop_au& au : loop.aus) {
        if (au.len[sim_loop_au::SLICE] == 0 || (au.idr != 0) != (au.len[sim_loop_au::SPS] != 0))
            return false;
        for (int p = 0; p < sim_loop_au::PARTS; ++p)
            if (static_cast<uint64_t>(au.off[p]) + au.len[p] > loop.data.size())
                return false;
    }
    return true;
}

std::shared_ptr<sim_h264_loop> read_file(const sim_loop_key& key, const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    loop_file_head head{};
    if (!in.read(reinterpret_cast<char*>(&head), sizeof head) || std::memcmp(head.magic, k_magic, 8) != 0 ||
        head.version != k_version || head.au_count != sim_loop_frames(key) || head.data_len > k_max_data)
        return nullptr;
    auto loop = std::make_shared<sim_h264_loop>();
    loop->key = key;
    loop->aus.resize(head.au_count);
    loop->data.resize(head.data_len);
    if (!in.read(reinterpret_cast<char*>(loop->aus.data()), loop->aus.size() * sizeof(sim_loop_au)) ||
        !in.read(reinterpret_cast<char*>(loop->data.data()), loop->data.size()))
        return nullptr;
    return valid(*loop) ? loop : nullptr;
}

// Written under a name of this process and thread, then renamed over the
// final name: readers see the whole file or none.
void write_file(const sim_h264_loop& loop, const std::string& dir, const std::string& path)
{
    mkdir(dir.c_str(), 0777);
    std::ostringstream tmp_name;
    tmp_name << path << ".tmp." << getpid() << "." << std::this_thread::get_id();
    const std::string tmp = tmp_name.str();
    loop_file_head head{};
    std::memcpy(head.magic, k_magic, 8);
    head.version = k_version;
    head.au_count = static_cast<uint32_t>(loop.aus.size());
    head.data_len = static_cast<uint32_t>(loop.data.size());
    {
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(&head), sizeof head);
        out.write(reinterpret_cast<const char*>(loop.aus.data()), loop.aus.size() * sizeof(sim_loop_au));
        out.write(reinterpret_cast<const char*>(loop.data.data()), loop.data.size());
        if (!out.flush()) {
            out.close();
            unlink(tmp.c_str());
            return;
        }
    }
    if (rename(tmp.c_str(), path.c_str()) != 0)
        unlink(tmp.c_str());
}

}  // namespace

std::string sim_loop_key::file_name() const
{
    const char* kind = scene == sim_scene::still ? (textured ? "still-textured" : "still")
                                                 : (textured ? "moving-textured" : "moving");
    char name[160];
    std::snprintf(name, sizeof name, "h264-cam%d-%ux%u-gop%u-%ukbps-%umfps-%s-cov%08x-v%u.loop", camera, width, height,
                  gop, kbps, mfps, kind, covers, k_version);
    return name;
}

uint32_t sim_loop_frames(const sim_loop_key& key)
{
    if (key.gop == 0 || key.mfps == 0)
        return 0;
    // Frames in 4 s, rounded up to whole GOPs.
    uint64_t frames = (static_cast<uint64_t>(key.mfps) * 4 + 999) / 1000;
    uint64_t gops = std::max<uint64_t>(1, (frames + key.gop - 1) / key.gop);
    return static_cast<uint32_t>(std::min<uint64_t>(gops * key.gop, 4096));
}

std::shared_ptr<const sim_h264_loop> sim_h264_loop_make(const sim_loop_key& key, const std::string& cache_dir,
                                                        sim_loop_made* made)
{
    sim_loop_made info;
    const std::string path = cache_dir + "/" + key.file_name();
    std::shared_ptr<sim_h264_loop> loop = read_file(key, path);
    if (loop != nullptr) {
        info.from_cache = true;
    } else {
        if (!sim_h264_codec_available())
            return nullptr;
        loop = std::make_shared<sim_h264_loop>();
        loop->key = key;
        int64_t start = now_us();
        if (!sim_h264_encode(key, loop.get()) || !valid(*loop))
            return nullptr;
        info.encode_us = now_us() - start;
        write_file(*loop, cache_dir, path);
    }
    if (made != nullptr)
        *made = info;
    return loop;
}
