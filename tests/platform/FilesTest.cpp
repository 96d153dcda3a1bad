// Files: creation dispositions and their errors, positions, several handles to one file,
// descriptors, and folders.
#include "VelmoraPlatform.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using velmora_test::FileExists;
using velmora_test::ReadFile;
using velmora_test::TempDir;

namespace {

void WriteText(const std::string& path, const std::string& text) {
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fwrite(text.data(), 1, text.size(), f);
    std::fclose(f);
}

HANDLE Open(const std::string& path, DWORD access, DWORD disposition) {
    return CreateFileA(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                       disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
}

bool Write(HANDLE h, const std::string& text) {
    DWORD written = 0;
    return WriteFile(h, text.data(), DWORD(text.size()), &written, nullptr) &&
           written == text.size();
}

std::string Read(HANDLE h, DWORD size) {
    std::string buffer(size, '\0');
    DWORD read = 0;
    if (!ReadFile(h, buffer.data(), size, &read, nullptr)) return "<failed>";
    buffer.resize(read);
    return buffer;
}

// The descriptors of this process that lead to `path`.
std::vector<int> DescriptorsOf(const std::string& path) {
    std::vector<int> fds;
    char resolved[PATH_MAX], target[PATH_MAX];
    DIR* dir = opendir("/proc/self/fd");
    if (!dir || !realpath(path.c_str(), resolved)) return fds;
    while (dirent* entry = readdir(dir)) {
        std::string link = std::string("/proc/self/fd/") + entry->d_name;
        ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
        if (n > 0 && std::string(target, size_t(n)) == resolved)
            fds.push_back(std::atoi(entry->d_name));
    }
    closedir(dir);
    return fds;
}

}  // namespace

TEST(FilesTest, OpenAlwaysKeepsContentAndAWriteAtTheSizeAppends) {
    TempDir dir;
    std::string path = dir.file("log.txt");
    // The way the log writer opens its file: write only, OPEN_ALWAYS, position to the end.
    HANDLE h = Open(path, GENERIC_WRITE, OPEN_ALWAYS);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS) << "a new file is no 'already exists'";
    ASSERT_TRUE(Write(h, "first\n"));
    ASSERT_TRUE(CloseHandle(h));

    h = Open(path, GENERIC_WRITE, OPEN_ALWAYS);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    DWORD high = 0xFFFF;
    DWORD size = GetFileSize(h, &high);
    EXPECT_EQ(size, 6u);
    EXPECT_EQ(high, 0u);
    EXPECT_EQ(SetFilePointer(h, LONG(size), nullptr, FILE_BEGIN), 6u);
    ASSERT_TRUE(Write(h, "second\n"));
    ASSERT_TRUE(CloseHandle(h));
    EXPECT_EQ(ReadFile(path), "first\nsecond\n");
}

TEST(FilesTest, WritingWithoutSettingThePositionOverwritesFromTheStart) {
    TempDir dir;
    std::string path = dir.file("data");
    WriteText(path, "0123456789");
    HANDLE h = Open(path, GENERIC_WRITE, OPEN_ALWAYS);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    ASSERT_TRUE(Write(h, "ab"));
    EXPECT_EQ(SetFilePointer(h, 5, nullptr, FILE_BEGIN), 5u);  // no append mode ignoring it
    ASSERT_TRUE(Write(h, "X"));
    ASSERT_TRUE(CloseHandle(h));
    EXPECT_EQ(ReadFile(path), "ab234X6789");
}

TEST(FilesTest, TwoHandlesToOneFileBothWriteWithTheirOwnPositions) {
    TempDir dir;
    std::string path = dir.file("shared");
    HANDLE first = Open(path, GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS);
    HANDLE second = Open(path, GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS);
    ASSERT_NE(first, INVALID_HANDLE_VALUE);
    ASSERT_NE(second, INVALID_HANDLE_VALUE);
    ASSERT_TRUE(Write(first, "AAAA"));
    ASSERT_TRUE(Write(second, "BB"));
    EXPECT_EQ(SetFilePointer(second, 0, nullptr, FILE_BEGIN), 0u);
    EXPECT_EQ(Read(second, 16), "BBAA");
    ASSERT_TRUE(CloseHandle(first));
    // Closing one handle leaves the other working.
    EXPECT_EQ(SetFilePointer(second, -1, nullptr, FILE_END), 3u);
    ASSERT_TRUE(Write(second, "CD"));
    ASSERT_TRUE(FlushFileBuffers(second));
    ASSERT_TRUE(CloseHandle(second));
    EXPECT_EQ(ReadFile(path), "BBACD");
}

TEST(FilesTest, DispositionsCreateTruncateOrFailAsAsked) {
    TempDir dir;
    std::string path = dir.file("f");
    EXPECT_EQ(Open(path, GENERIC_WRITE, OPEN_EXISTING), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Open(path, GENERIC_WRITE, TRUNCATE_EXISTING), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(FileExists(path)) << "failed opens must not create the file";

    HANDLE h = Open(path, GENERIC_WRITE, CREATE_NEW);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    ASSERT_TRUE(Write(h, "content"));
    ASSERT_TRUE(CloseHandle(h));
    EXPECT_EQ(Open(path, GENERIC_WRITE, CREATE_NEW), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_FILE_EXISTS);

    h = Open(path, GENERIC_READ, OPEN_EXISTING);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    EXPECT_EQ(Read(h, 100), "content");
    EXPECT_EQ(Read(h, 100), "") << "a read at the end succeeds with 0 bytes";
    ASSERT_TRUE(CloseHandle(h));

    h = Open(path, GENERIC_WRITE, CREATE_ALWAYS);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(GetFileSize(h, nullptr), 0u);
    ASSERT_TRUE(Write(h, "new"));
    ASSERT_TRUE(CloseHandle(h));
    h = Open(path, GENERIC_WRITE, TRUNCATE_EXISTING);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetFileSize(h, nullptr), 0u);
    ASSERT_TRUE(CloseHandle(h));
}

TEST(FilesTest, OpenFailuresReportWin32Errors) {
    TempDir dir;
    EXPECT_EQ(Open(dir.file("missing/f"), GENERIC_WRITE, OPEN_ALWAYS), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
    // A folder isn't a file, even where open(2) would accept it.
    EXPECT_EQ(Open(dir.path(), GENERIC_READ, OPEN_EXISTING), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);

    std::string locked = dir.file("locked");
    WriteText(locked, "x");
    ASSERT_EQ(chmod(locked.c_str(), 0), 0);
    // Permissions don't bind root, so the attempt is made as another user in a child.
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(2);
        bool refused = Open(locked, GENERIC_READ, OPEN_EXISTING) == INVALID_HANDLE_VALUE &&
                       GetLastError() == ERROR_ACCESS_DENIED;
        _exit(refused ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 2) GTEST_SKIP() << "can't drop privileges here";
    EXPECT_EQ(WEXITSTATUS(status), 0) << "no ERROR_ACCESS_DENIED for a file without rights";
}

TEST(FilesTest, HandleOwnsOneCloseOnExecDescriptorUntilClosed) {
    TempDir dir;
    std::string path = dir.file("fd");
    HANDLE h = Open(path, GENERIC_WRITE, OPEN_ALWAYS);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    std::vector<int> fds = DescriptorsOf(path);
    ASSERT_EQ(fds.size(), 1u);
    EXPECT_TRUE(fcntl(fds[0], F_GETFD) & FD_CLOEXEC) << "launched programs must not get it";
    EXPECT_FALSE(fcntl(fds[0], F_GETFL) & O_APPEND);
    ASSERT_TRUE(CloseHandle(h));
    EXPECT_TRUE(DescriptorsOf(path).empty()) << "the descriptor leaks after CloseHandle";
}

TEST(FilesTest, SetFilePointerMovesRelativelyAndThroughTheHighPart) {
    TempDir dir;
    std::string path = dir.file("pos");
    WriteText(path, "0123456789");
    HANDLE h = Open(path, GENERIC_READ | GENERIC_WRITE, OPEN_EXISTING);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    EXPECT_EQ(SetFilePointer(h, 6, nullptr, FILE_BEGIN), 6u);
    EXPECT_EQ(SetFilePointer(h, -3, nullptr, FILE_CURRENT), 3u);
    EXPECT_EQ(Read(h, 2), "34");
    // Before the start is refused and the position stays.
    EXPECT_EQ(SetFilePointer(h, -11, nullptr, FILE_END), INVALID_SET_FILE_POINTER);
    EXPECT_EQ(GetLastError(), 131u);  // ERROR_NEGATIVE_SEEK
    EXPECT_EQ(SetFilePointer(h, 0, nullptr, FILE_CURRENT), 5u);

    // Past 4 GiB (a sparse file takes no space).
    if (truncate(path.c_str(), off_t((int64_t(1) << 32) + 10)) != 0)
        GTEST_SKIP() << "no large sparse files here";
    DWORD sizeHigh = 0;
    EXPECT_EQ(GetFileSize(h, &sizeHigh), 10u);
    EXPECT_EQ(sizeHigh, 1u);
    LONG high = -1;  // with the low part: -2 as a 64-bit distance
    EXPECT_EQ(SetFilePointer(h, -2, &high, FILE_END), 8u);
    EXPECT_EQ(high, 1);
    // Without a high part such a position can't be reported, so it is refused.
    EXPECT_EQ(SetFilePointer(h, 0, nullptr, FILE_CURRENT), INVALID_SET_FILE_POINTER);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    ASSERT_TRUE(CloseHandle(h));
}

TEST(FilesTest, AccessRightsAndHandlesOfOtherKindsAreRefused) {
    TempDir dir;
    std::string path = dir.file("ro");
    WriteText(path, "abc");
    HANDLE readOnly = Open(path, GENERIC_READ, OPEN_EXISTING);
    ASSERT_NE(readOnly, INVALID_HANDLE_VALUE);
    DWORD count = 77;
    EXPECT_FALSE(WriteFile(readOnly, "x", 1, &count, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    EXPECT_EQ(count, 0u);
    ASSERT_TRUE(CloseHandle(readOnly));

    SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    ASSERT_NE(manager, nullptr);
    for (HANDLE bad : {HANDLE(manager), readOnly, INVALID_HANDLE_VALUE}) {
        EXPECT_FALSE(WriteFile(bad, "x", 1, &count, nullptr));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
        EXPECT_EQ(GetFileSize(bad, nullptr), INVALID_FILE_SIZE);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    }
    EXPECT_TRUE(CloseServiceHandle(manager));
    EXPECT_EQ(ReadFile(path), "abc");
}

TEST(FilesTest, CreateDirectoryMakesOneLevel) {
    TempDir dir;
    std::string folder = dir.file("logs");
    ASSERT_TRUE(CreateDirectoryA(folder.c_str(), nullptr));
    struct stat st;
    EXPECT_TRUE(stat(folder.c_str(), &st) == 0 && S_ISDIR(st.st_mode));
    EXPECT_FALSE(CreateDirectoryA(folder.c_str(), nullptr));
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_FALSE(CreateDirectoryA(dir.file("a/b").c_str(), nullptr));
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
    EXPECT_FALSE(FileExists(dir.file("a")));
}
