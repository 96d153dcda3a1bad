// .ini files: WritePrivateProfileStringA and GetPrivateProfileStringA.
//
// The file is a list of lines. "[name]" opens a section; "key=value" inside a section is an
// entry; lines starting with ';' are comments. Names of sections and keys are trimmed of
// blanks and compared without regard to ASCII case; only the first section of a name counts.
// A value enclosed in matching single or double quotes is read without them.
//
// An update reads the whole file, changes the lines concerned and leaves every other line
// as it was (line ends become "\r\n"). The new content goes to a temporary file in the same
// folder, which is flushed to disk (fsync) and then renamed over the old file, so that a
// reader, or the file after a crash, shows the old content or the new one, never a part.
// Writers are ordered by a mutex of the process and, between processes, by flock on the
// companion file "<file>.lock", held from the read of the old content to the rename, so that
// no concurrent update is lost. The lock file is left in place: removing it would let two
// writers lock two different files. Readers take no lock: they see a whole file either way.
#include "VelmoraPlatform.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr DWORD kErrorDiskFull = 112;  // ERROR_DISK_FULL

// ---- Lines ---------------------------------------------------------------------------

char LowerAscii(char c) { return (c >= 'A' && c <= 'Z') ? char(c - 'A' + 'a') : c; }

bool EqualNoCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (LowerAscii(a[i]) != LowerAscii(b[i])) return false;
    return true;
}

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\v' || c == '\f' || c == '\r'; }

std::string_view Trim(std::string_view s) {
    while (!s.empty() && IsBlank(s.front())) s.remove_prefix(1);
    while (!s.empty() && IsBlank(s.back())) s.remove_suffix(1);
    return s;
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        size_t stop = (end > start && text[end - 1] == '\r') ? end - 1 : end;
        lines.emplace_back(text, start, stop - start);
        start = end + 1;
    }
    return lines;
}

// What a line is, with its name (section or key) and value as views into the line.
struct ParsedLine {
    enum Type { Other, Section, Entry } type = Other;
    std::string_view name;
    std::string_view value;
};

ParsedLine Parse(std::string_view line, bool first) {
    if (first && line.substr(0, 3) == "\xEF\xBB\xBF") line.remove_prefix(3);  // UTF-8 mark
    line = Trim(line);
    ParsedLine parsed;
    if (line.empty() || line.front() == ';') return parsed;
    if (line.front() == '[') {
        size_t close = line.find(']');
        parsed.type = ParsedLine::Section;
        parsed.name = Trim(line.substr(1, close == std::string_view::npos ? close : close - 1));
        return parsed;
    }
    size_t equal = line.find('=');
    if (equal == std::string_view::npos) return parsed;
    parsed.type = ParsedLine::Entry;
    parsed.name = Trim(line.substr(0, equal));
    parsed.value = Trim(line.substr(equal + 1));
    return parsed;
}

std::string_view Unquote(std::string_view value) {
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
        value.back() == value.front())
        return value.substr(1, value.size() - 2);
    return value;
}

// The lines [begin, end) of the first section called `name`, the header being line begin - 1;
// begin is 0 when there is no such section.
struct SectionRange {
    size_t begin = 0;
    size_t end = 0;
    bool found() const { return begin != 0; }
};

SectionRange FindSection(const std::vector<std::string>& lines, std::string_view name) {
    SectionRange range;
    for (size_t i = 0; i < lines.size(); ++i) {
        ParsedLine parsed = Parse(lines[i], i == 0);
        if (parsed.type != ParsedLine::Section) continue;
        if (range.found()) {
            range.end = i;
            return range;
        }
        if (EqualNoCase(parsed.name, name)) range.begin = i + 1;
    }
    if (range.found()) range.end = lines.size();
    return range;
}

// Applies one WritePrivateProfileStringA to the lines; false when nothing changed.
bool Apply(std::vector<std::string>& lines, std::string_view section, const char* key,
           const char* value) {
    SectionRange range = FindSection(lines, section);
    if (key == nullptr) {  // delete the section, its header and all its lines
        if (!range.found()) return false;
        lines.erase(lines.begin() + long(range.begin - 1), lines.begin() + long(range.end));
        return true;
    }
    std::string_view keyName = Trim(key);
    if (!range.found()) {
        if (value == nullptr) return false;
        lines.push_back("[" + std::string(section) + "]");
        lines.push_back(std::string(keyName) + "=" + value);
        return true;
    }
    bool changed = false;
    size_t lastContent = range.begin - 1;  // the header, or the last line that isn't empty
    for (size_t i = range.begin; i < range.end; ++i) {
        ParsedLine parsed = Parse(lines[i], i == 0);
        if (parsed.type == ParsedLine::Entry && EqualNoCase(parsed.name, keyName)) {
            if (value == nullptr) {  // delete every entry of that key in the section
                lines.erase(lines.begin() + long(i));
                --i;
                --range.end;
                changed = true;
                continue;
            }
            // Update in place; the key keeps the spelling it has in the file.
            std::string updated = std::string(parsed.name) + "=" + value;
            if (lines[i] == updated) return false;
            lines[i] = std::move(updated);
            return true;
        }
        if (!Trim(lines[i]).empty()) lastContent = i;
    }
    if (value == nullptr) return changed;
    // A new key goes behind the last line of its section, before any blank lines that
    // separate it from the next one.
    lines.insert(lines.begin() + long(lastContent + 1), std::string(keyName) + "=" + value);
    return true;
}

// ---- Files ---------------------------------------------------------------------------

DWORD ErrorFromErrno(int err) {
    switch (err) {
    case ENOENT:
    case ENOTDIR: return ERROR_PATH_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EROFS:
    case EISDIR: return ERROR_ACCESS_DENIED;
    case EMFILE:
    case ENFILE: return ERROR_TOO_MANY_OPEN_FILES;
    case ENOMEM: return ERROR_NOT_ENOUGH_MEMORY;
    case ENAMETOOLONG: return ERROR_INVALID_NAME;
    case ENOSPC:
    case EDQUOT: return kErrorDiskFull;
    default: return ERROR_WRITE_FAULT;
    }
}

// The whole content of a file. False with errno when it can't be read; a missing file
// reads as absent (exists false) without failing.
bool ReadWhole(const char* path, std::string* content, bool* exists, struct stat* st) {
    content->clear();
    *exists = false;
    int fd = ::open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return errno == ENOENT;
    if (::fstat(fd, st) != 0) {
        int err = errno;
        ::close(fd);
        errno = err;
        return false;
    }
    if (S_ISDIR(st->st_mode)) {
        ::close(fd);
        errno = EISDIR;
        return false;
    }
    *exists = true;
    char buffer[8192];
    for (;;) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            int err = errno;
            ::close(fd);
            errno = err;
            return false;
        }
        if (n == 0) break;
        content->append(buffer, size_t(n));
    }
    ::close(fd);
    return true;
}

bool WriteAll(int fd, const std::string& data) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        done += size_t(n);
    }
    return true;
}

// Holds the cross-process lock of one .ini file for its lifetime.
class FileLock {
public:
    explicit FileLock(const std::string& iniPath) {
        std::string lockPath = iniPath + ".lock";
        m_fd = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOCTTY, 0666);
        if (m_fd < 0) return;
        while (::flock(m_fd, LOCK_EX) != 0) {
            if (errno != EINTR) {
                int err = errno;
                ::close(m_fd);
                m_fd = -1;
                errno = err;
                return;
            }
        }
    }
    ~FileLock() {
        if (m_fd >= 0) ::close(m_fd);  // closing the only descriptor releases the lock
    }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    bool locked() const { return m_fd >= 0; }

private:
    int m_fd = -1;
};

// Writes `content` to a new file beside `path` and renames it over `path`. The new file
// gets the permissions of the old one, or those of a newly created file.
bool ReplaceFile(const std::string& path, const std::string& content, bool existed,
                 const struct stat& old) {
    static std::atomic<unsigned> counter{0};
    std::string temp = path + "." + std::to_string(::getpid()) + "." +
                       std::to_string(counter.fetch_add(1)) + ".tmp";
    int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY, 0666);
    if (fd < 0) return false;
    bool ok = WriteAll(fd, content) && (!existed || ::fchmod(fd, old.st_mode & 07777) == 0) &&
              ::fsync(fd) == 0;
    int err = errno;
    if (::close(fd) != 0 && ok) {
        ok = false;
        err = errno;
    }
    if (ok && ::rename(temp.c_str(), path.c_str()) != 0) {
        ok = false;
        err = errno;
    }
    if (!ok) {
        ::unlink(temp.c_str());
        errno = err;
    }
    return ok;
}

bool HasLineBreak(const char* s) { return s && std::strpbrk(s, "\r\n") != nullptr; }

std::mutex& WriterMutex() {
    static std::mutex mutex;
    return mutex;
}

// Copies a list of names, each ended by a null, with a second null at the end, as far as it
// fits; the Win32 result for lists (nSize - 2 when cut).
DWORD CopyList(const std::vector<std::string_view>& names, LPSTR out, DWORD nSize) {
    if (nSize < 2) {
        out[0] = '\0';
        return 0;
    }
    DWORD used = 0;
    for (std::string_view name : names) {
        if (used + name.size() + 1 > nSize - 1) {
            // Cut: keep what fits and end with two nulls.
            size_t room = used < nSize - 2 ? nSize - 2 - used : 0;
            if (room) std::memcpy(out + used, name.data(), room);
            out[nSize - 2] = '\0';
            out[nSize - 1] = '\0';
            return nSize - 2;
        }
        if (!name.empty()) std::memcpy(out + used, name.data(), name.size());
        used += DWORD(name.size());
        out[used++] = '\0';
    }
    out[used] = '\0';
    return used;
}

}  // namespace

extern "C" {

BOOL WritePrivateProfileStringA(LPCSTR lpAppName, LPCSTR lpKeyName, LPCSTR lpString,
                                LPCSTR lpFileName) {
    if (lpAppName == nullptr && lpKeyName == nullptr && lpString == nullptr &&
        lpFileName == nullptr)
        return TRUE;  // "flush the cache": nothing is cached here
    if (lpAppName == nullptr || lpFileName == nullptr || *lpFileName == '\0') {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    // A line break would split the line it belongs to, and a key with '=' could never be
    // found again: either would damage the file, so they are refused.
    if (HasLineBreak(lpAppName) || HasLineBreak(lpKeyName) || HasLineBreak(lpString) ||
        (lpKeyName && std::strchr(lpKeyName, '='))) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    std::string_view section = Trim(lpAppName);
    std::string path = lpFileName;

    std::lock_guard<std::mutex> threads(WriterMutex());
    FileLock processes(path);
    if (!processes.locked()) {
        SetLastError(ErrorFromErrno(errno));
        return FALSE;
    }
    std::string content;
    bool existed;
    struct stat old {};
    if (!ReadWhole(path.c_str(), &content, &existed, &old)) {
        SetLastError(ErrorFromErrno(errno));
        return FALSE;
    }
    std::vector<std::string> lines = SplitLines(content);
    if (!Apply(lines, section, lpKeyName, lpString)) return TRUE;  // nothing to change

    std::string updated;
    updated.reserve(content.size() + 64);
    for (const std::string& line : lines) {
        updated += line;
        updated += "\r\n";
    }
    if (!ReplaceFile(path, updated, existed, old)) {
        SetLastError(ErrorFromErrno(errno));
        return FALSE;
    }
    return TRUE;
}

DWORD GetPrivateProfileStringA(LPCSTR lpAppName, LPCSTR lpKeyName, LPCSTR lpDefault,
                               LPSTR lpReturnedString, DWORD nSize, LPCSTR lpFileName) {
    if (lpReturnedString == nullptr || nSize == 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    std::string content;
    bool exists = false;
    struct stat st;
    if (lpFileName != nullptr) ReadWhole(lpFileName, &content, &exists, &st);
    std::vector<std::string> lines = SplitLines(content);

    if (lpAppName == nullptr) {  // the names of all sections
        std::vector<std::string_view> names;
        for (size_t i = 0; i < lines.size(); ++i) {
            ParsedLine parsed = Parse(lines[i], i == 0);
            if (parsed.type == ParsedLine::Section) names.push_back(parsed.name);
        }
        SetLastError(exists ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND);
        return CopyList(names, lpReturnedString, nSize);
    }

    SectionRange range = FindSection(lines, Trim(lpAppName));
    if (lpKeyName == nullptr) {  // the keys of one section
        std::vector<std::string_view> names;
        for (size_t i = range.begin; range.found() && i < range.end; ++i) {
            ParsedLine parsed = Parse(lines[i], i == 0);
            if (parsed.type == ParsedLine::Entry) names.push_back(parsed.name);
        }
        SetLastError(range.found() ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND);
        return CopyList(names, lpReturnedString, nSize);
    }

    std::string_view key = Trim(lpKeyName);
    std::string_view result;
    bool found = false;
    for (size_t i = range.begin; range.found() && i < range.end; ++i) {
        ParsedLine parsed = Parse(lines[i], i == 0);
        if (parsed.type == ParsedLine::Entry && EqualNoCase(parsed.name, key)) {
            result = Unquote(parsed.value);
            found = true;
            break;
        }
    }
    if (!found) {
        // The default is returned without its trailing blanks.
        result = lpDefault ? std::string_view(lpDefault) : std::string_view();
        while (!result.empty() && result.back() == ' ') result.remove_suffix(1);
    }
    size_t length = result.size() < nSize - 1 ? result.size() : nSize - 1;
    if (length) std::memcpy(lpReturnedString, result.data(), length);
    lpReturnedString[length] = '\0';
    SetLastError(found ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND);
    return DWORD(length);
}

}  // extern "C"
