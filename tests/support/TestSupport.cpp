#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace fs = std::filesystem;

namespace velmora_test {

std::string UniqueName(const std::string& stem) {
    static std::atomic<int> counter{0};
    auto now = std::chrono::steady_clock::now().time_since_epoch().count();
    return stem + "_" + std::to_string(getpid()) + "_" + std::to_string(counter++) + "_" +
           std::to_string(now % 1000000);
}

TempDir::TempDir() {
    const char* env = std::getenv("VELMORA_TEST_TMP");
    fs::path base = env && *env ? fs::path(env) : fs::temp_directory_path() / "velmora-tests";
    // Named after the test, cut short: the log paths built below it have a limit of MAX_PATH.
    const testing::TestInfo* info = testing::UnitTest::GetInstance()->current_test_info();
    std::string stem = info ? std::string(info->test_suite_name()) + "." + info->name() : "tmp";
    m_path = (base / UniqueName(stem.substr(0, 24))).string();
    fs::create_directories(m_path);
}

TempDir::~TempDir() {
    std::error_code ec;
    fs::remove_all(m_path, ec);
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    for (size_t start = 0, end; start < text.size(); start = end + 1) {
        end = std::min(text.find('\n', start), text.size());
        bool crlf = end < text.size() && end > start && text[end - 1] == '\r';
        lines.push_back(text.substr(start, end - start - crlf));
    }
    return lines;
}

bool FileExists(const std::string& path) { return fs::exists(path); }

}  // namespace velmora_test
