#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace fs = std::filesystem;

namespace velmora_test {

namespace {
std::string Base() {
    const char* env = std::getenv("VELMORA_TEST_TMP");
    fs::path base = env && *env ? fs::path(env) : fs::temp_directory_path() / "velmora-tests";
    fs::create_directories(base);
    return base.string();
}
}  // namespace

std::string UniqueName(const std::string& stem) {
    static std::atomic<int> counter{0};
    auto now = std::chrono::steady_clock::now().time_since_epoch().count();
    std::ostringstream name;
    name << stem << "_" << getpid() << "_" << counter++ << "_" << (now % 1000000);
    return name.str();
}

TempDir::TempDir() {
    const testing::TestInfo* info = testing::UnitTest::GetInstance()->current_test_info();
    // The test's name, cut short: tests build long paths below this folder (log paths have
    // a limit of MAX_PATH), and the folder's own length must not depend on the name.
    std::string stem = info ? std::string(info->test_suite_name()) + "." + info->name() : "tmp";
    if (stem.size() > 24) stem.resize(24);
    m_path = Base() + "/" + UniqueName(stem);
    fs::create_directories(m_path);
}

TempDir::~TempDir() {
    std::error_code ec;
    fs::remove_all(m_path, ec);
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            lines.push_back(text.substr(start));
            break;
        }
        size_t stop = (end > start && text[end - 1] == '\r') ? end - 1 : end;
        lines.push_back(text.substr(start, stop - start));
        start = end + 1;
    }
    return lines;
}

bool FileExists(const std::string& path) { return fs::exists(path); }

}  // namespace velmora_test
