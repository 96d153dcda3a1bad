#pragma once  // helpers shared by the test suites

#include <string>
#include <vector>

namespace velmora_test {

// A fresh folder for one test below $VELMORA_TEST_TMP or the temporary folder, removed by the destructor.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return m_path; }  // without a trailing '/'
    std::string file(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// A name no other test process uses at the same time (for machine-wide objects).
std::string UniqueName(const std::string& stem);
// The whole content of a file; empty if it can't be read.
std::string ReadFile(const std::string& path);
// The lines of a text, split at "\r\n" or "\n"; a last line without an end is kept.
std::vector<std::string> SplitLines(const std::string& text);
bool FileExists(const std::string& path);

}  // namespace velmora_test
