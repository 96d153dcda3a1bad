// .ini files: updates in place, deletions, reads, and concurrent writers in several threads
// and processes that neither lose updates nor let a reader see a partial file.
#include "VelmoraPlatform.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using velmora_test::ReadFile;
using velmora_test::SplitLines;
using velmora_test::TempDir;
using Lines = std::vector<std::string>;

namespace {

void WriteText(const std::string& path, const std::string& text) {
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fwrite(text.data(), 1, text.size(), f);
    std::fclose(f);
}

bool Put(const char* section, const char* key, const char* value, const std::string& path) {
    return WritePrivateProfileStringA(section, key, value, path.c_str());
}

std::string Get(const char* section, const char* key, const std::string& path,
                const char* fallback = "<default>") {
    char buffer[256];
    DWORD n = GetPrivateProfileStringA(section, key, fallback, buffer, sizeof buffer, path.c_str());
    EXPECT_EQ(n, std::strlen(buffer));
    return buffer;
}

// True for a whole file as the writer makes it from "key=value-key" pairs: every line ends
// with "\r\n" and is a section header or such a pair. Collects the keys.
bool ParsesWhole(const std::string& text, std::set<std::string>* keys) {
    if (!text.empty() && (text.size() < 2 || text.compare(text.size() - 2, 2, "\r\n") != 0))
        return false;
    for (const std::string& line : SplitLines(text)) {
        if (line.size() > 2 && line.front() == '[' && line.back() == ']') continue;
        size_t equal = line.find('=');
        if (equal == std::string::npos || line.substr(equal + 1) != "value-" + line.substr(0, equal))
            return false;
        keys->insert(line.substr(0, equal));
    }
    return true;
}

}  // namespace

TEST(ProfileStringTest, CreatesTheFileAndPutsNewKeysIntoTheirSection) {
    TempDir dir;
    std::string path = dir.file("status.ini");
    ASSERT_TRUE(Put("First", "A", "1", path));
    EXPECT_EQ(ReadFile(path), "[First]\r\nA=1\r\n");
    ASSERT_TRUE(Put("Second", "B", "2", path));
    ASSERT_TRUE(Put("first", "C", "", path));  // lands in [First], before [Second]
    EXPECT_EQ(ReadFile(path), "[First]\r\nA=1\r\nC=\r\n[Second]\r\nB=2\r\n");
    EXPECT_EQ(Get("Second", "C", path), "<default>") << "keys belong to one section";
    EXPECT_EQ(Get("First", "C", path), "") << "an empty value is a value";
}

TEST(ProfileStringTest, UpdatesInPlaceWithoutRegardToCaseKeepingEverythingElse) {
    TempDir dir;
    std::string path = dir.file("app.ini");
    WriteText(path, "; by hand\n[General]\nName = Velmora\n; the port\nPort=1\n\n[Status]\nX=0\n");
    ASSERT_TRUE(Put("GENERAL", "port", "8080", path));
    ASSERT_TRUE(Put("general", "New", "n", path));
    EXPECT_EQ(SplitLines(ReadFile(path)), (Lines{"; by hand", "[General]", "Name = Velmora",
                                                 "; the port", "Port=8080", "New=n", "",
                                                 "[Status]", "X=0"}));
    EXPECT_EQ(Get("general", "PORT", path), "8080");
    EXPECT_EQ(Get("General", "name", path), "Velmora") << "blanks around = aren't part of it";
}

TEST(ProfileStringTest, NullValueDeletesAKeyAndNullKeyASection) {
    TempDir dir;
    std::string path = dir.file("app.ini");
    WriteText(path, "[A]\r\nx=1\r\ny=2\r\n[B]\r\n; about B\r\nz=3\r\n[C]\r\nw=4\r\n");
    ASSERT_TRUE(Put("a", "X", nullptr, path));
    ASSERT_TRUE(Put("b", nullptr, nullptr, path));
    EXPECT_EQ(SplitLines(ReadFile(path)), (Lines{"[A]", "y=2", "[C]", "w=4"}));
    // Deleting what isn't there changes nothing, and creates no file.
    EXPECT_TRUE(Put("A", "nothing", nullptr, path));
    EXPECT_EQ(SplitLines(ReadFile(path)), (Lines{"[A]", "y=2", "[C]", "w=4"}));
    EXPECT_TRUE(Put("A", "x", nullptr, dir.file("absent.ini")));
    EXPECT_FALSE(velmora_test::FileExists(dir.file("absent.ini")));
}

TEST(ProfileStringTest, GetFollowsWin32ResultConventions) {
    TempDir dir;
    std::string path = dir.file("app.ini");
    WriteText(path, "[S]\nlong=abcdefghij\nquoted=\"  spaced  \"\n[T]\n");
    char buffer[6];
    EXPECT_EQ(GetPrivateProfileStringA("S", "long", "", buffer, sizeof buffer, path.c_str()), 5u);
    EXPECT_STREQ(buffer, "abcde") << "cut to nSize - 1 with a terminator";
    EXPECT_EQ(Get("S", "quoted", path), "  spaced  ");
    EXPECT_EQ(Get("S", "missing", path, "fallback  "), "fallback");
    EXPECT_EQ(Get("S", "x", dir.file("no-such.ini")), "<default>");

    // Null names list sections or keys, each ended by a null, the list by one more.
    char list[64];
    DWORD n = GetPrivateProfileStringA(nullptr, nullptr, "", list, sizeof list, path.c_str());
    EXPECT_EQ(std::string(list, n + 1), std::string("S\0T\0\0", 5));
    n = GetPrivateProfileStringA("s", nullptr, "", list, 9, path.c_str());
    EXPECT_EQ(n, 7u) << "nSize - 2 when cut";
    EXPECT_EQ(std::string(list, 9), std::string("long\0qu\0\0", 9));
}

TEST(ProfileStringTest, ReplacementKeepsPermissionsAndLeavesNoTemporaryFile) {
    TempDir dir;
    std::string path = dir.file("app.ini");
    WriteText(path, "[S]\r\nk=1\r\n");
    ASSERT_EQ(chmod(path.c_str(), 0640), 0);
    for (const char* value : {"2", "3"}) ASSERT_TRUE(Put("S", "k", value, path));
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path()))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (Lines{"app.ini", "app.ini.lock"}));

    EXPECT_FALSE(Put("S", "k", "v", dir.file("missing/app.ini")));
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
    EXPECT_FALSE(Put("S", "k", "two\nlines", path)) << "it would break the file";
}

TEST(ProfileStringTest, ConcurrentThreadsLoseNoKeyAndReadersNeverSeeAPartialFile) {
    TempDir dir;
    std::string path = dir.file("status.ini");
    constexpr int kWriters = 8, kKeysEach = 40, kPadding = 1000;
    // A file of some size, so that rewriting it in place would take a while.
    std::string padding = "[Padding]\r\n";
    for (int i = 0; i < kPadding; ++i)
        padding += "p" + std::to_string(i) + "=value-p" + std::to_string(i) + "\r\n";
    WriteText(path, padding);

    std::atomic<bool> done{false};
    auto read = [&] {  // keys only ever get added, so none may vanish
        std::set<std::string> seen;
        for (bool last = false; !last;) {
            last = done.load();
            std::set<std::string> keys;
            if (!ParsesWhole(ReadFile(path), &keys)) return ADD_FAILURE() << "torn file";
            for (const std::string& key : seen)
                if (!keys.count(key)) return ADD_FAILURE() << key << " disappeared";
            seen = std::move(keys);
        }
    };
    std::thread readers[2] = {std::thread(read), std::thread(read)};
    std::atomic<int> failures{0};
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w) {
        writers.emplace_back([&, w] {
            std::string own = "Writer" + std::to_string(w);
            for (int i = 0; i < kKeysEach; ++i) {
                std::string key = "t" + std::to_string(w) + "_" + std::to_string(i);
                const char* section = i % 2 ? "Shared" : own.c_str();
                failures += !Put(section, key.c_str(), ("value-" + key).c_str(), path);
            }
        });
    }
    for (auto& t : writers) t.join();
    done = true;
    for (auto& t : readers) t.join();

    EXPECT_EQ(failures.load(), 0);
    std::set<std::string> keys;
    ASSERT_TRUE(ParsesWhole(ReadFile(path), &keys));
    EXPECT_EQ(keys.size(), size_t(kPadding + kWriters * kKeysEach));
    EXPECT_EQ(Get("Writer7", "t7_38", path), "value-t7_38");
    EXPECT_EQ(Get("Shared", "t3_39", path), "value-t3_39");
}

TEST(ProfileStringTest, ConcurrentProcessesLoseNoKey) {
    TempDir dir;
    std::string path = dir.file("status.ini");
    constexpr int kKeysEach = 300;
    // Both processes start writing when the pipe closes, so that they overlap.
    int start[2];
    ASSERT_EQ(pipe(start), 0);
    auto writeKeys = [&](const std::string& prefix) {
        char go;
        while (read(start[0], &go, 1) < 0 && errno == EINTR) {
        }
        int failed = 0;
        for (int i = 0; i < kKeysEach; ++i) {
            std::string key = prefix + std::to_string(i);
            failed += !Put("Status", key.c_str(), ("value-" + key).c_str(), path);
        }
        return failed;
    };
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(start[1]);
        _exit(writeKeys("child") == 0 ? 0 : 1);
    }
    close(start[1]);
    EXPECT_EQ(writeKeys("parent"), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child's updates failed";

    std::set<std::string> keys;
    ASSERT_TRUE(ParsesWhole(ReadFile(path), &keys));
    EXPECT_EQ(keys.size(), size_t(2 * kKeysEach)) << "updates were lost";
    EXPECT_TRUE(keys.count("child299") && keys.count("parent299"));
}
