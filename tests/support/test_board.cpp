#include "tests/support/test_board.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/sim/board.h"

temp_board_dir::temp_board_dir()
{
    const char* tmp = std::getenv("TMPDIR");
    std::string templ = std::string(tmp && tmp[0] ? tmp : "/tmp") + "/tarvo-test-XXXXXX";
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) {
        ADD_FAILURE() << "mkdtemp failed";
        return;
    }
    path_ = buf.data();
}

temp_board_dir::~temp_board_dir()
{
    if (path_.empty())
        return;
    sim_board_release_queues(path_.c_str());
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

void board_test::SetUp()
{
    std::string err;
    ASSERT_EQ(sim_board_open(board_.path().c_str(), chip_, "", &err), 0) << err;
}

void board_test::TearDown()
{
    sim_board_close();
}

void board_test::reopen(const char* fail_rules, int chip)
{
    chip_ = chip;
    std::string err;
    ASSERT_EQ(sim_board_open(board_.path().c_str(), chip_, fail_rules, &err), 0) << err;
}

std::string board_test::chip_file(const std::string& rel) const
{
    return board_.path() + "/chip" + std::to_string(chip_) + "/" + rel;
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

bool file_exists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

stdout_capture::stdout_capture()
{
    std::fflush(stdout);
    testing::internal::CaptureStdout();
}

stdout_capture::~stdout_capture()
{
    text();
}

std::string stdout_capture::text()
{
    if (active_) {
        std::fflush(stdout);
        text_ = testing::internal::GetCapturedStdout();
        active_ = false;
    }
    return text_;
}

void stdout_to_stderr()
{
    std::fflush(stdout);
    dup2(STDERR_FILENO, STDOUT_FILENO);
}
