#include "tests/support/test_board.h"

#include <sys/msg.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

temp_board_dir::temp_board_dir()
{
    std::string templ = (std::filesystem::temp_directory_path() / "tarvo-test-XXXXXX").string();
    if (mkdtemp(templ.data()) != nullptr)
        path_ = templ;
    else
        ADD_FAILURE() << "mkdtemp failed";
}

temp_board_dir::~temp_board_dir()
{
    if (path_.empty())
        return;
    expect_no_sanitizer_report();
    sim_board_release_queues(path_.c_str());
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

void temp_board_dir::expect_no_sanitizer_report() const
{
    // A slave started on this board writes its console here; a sanitizer
    // report there is a fault of the slave even when the test's own checks
    // pass, since the slave is another process.
    static const char* const k_marks[] = {"WARNING: ThreadSanitizer", "ERROR: AddressSanitizer",
                                          "ERROR: LeakSanitizer", "runtime error:"};
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(path_, ec)) {
        const std::string name = e.path().filename().string();
        if (name.rfind("chip", 0) != 0 || e.path().extension() != ".console")
            continue;
        const std::string text = read_file(e.path().string());
        for (const char* mark : k_marks)
            if (size_t at = text.find(mark); at != std::string::npos)
                ADD_FAILURE() << name << " holds a sanitizer report:\n" << text.substr(at > 200 ? at - 200 : 0, 3000);
    }
}

void temp_board_dir::share_cache() const
{
    std::error_code ec;
    std::filesystem::create_directories(TARVO_TEST_CACHE_DIR, ec);
    std::filesystem::create_directory_symlink(TARVO_TEST_CACHE_DIR, path_ + "/cache", ec);
    if (ec)
        ADD_FAILURE() << "cannot link the shared cache: " << ec.message();
}

void board_test::reopen(const char* fail_rules, int chip)
{
    chip_ = chip;
    std::string err;
    ASSERT_EQ(sim_board_open(board_.path().c_str(), chip_, fail_rules, &err), 0) << err;
}

std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

std::vector<std::string> read_lines(const std::string& path)
{
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

int queued(int msgid)
{
    struct msqid_ds ds{};
    return msgctl(msgid, IPC_STAT, &ds) == 0 ? static_cast<int>(ds.msg_qnum) : -1;
}

long host_key(const std::string& msgq, unsigned key)
{
    for (const std::string& line : read_lines(msgq)) {
        unsigned k = 0, h = 0;
        if (std::sscanf(line.c_str(), "%x %x", &k, &h) == 2 && k == key)
            return h;
    }
    return -1;
}
