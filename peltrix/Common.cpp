#include "PeltrixInternal.h"

#include <cstdlib>
#include <cstring>

namespace peltrix {

std::string LogFolder() {
    std::string folder;
    const char* env = std::getenv("PELTRIX_LOG_FOLDER");
    if (env != nullptr && *env != '\0') {
        folder = env;
    } else {
        char exe[4096] = {};
        DWORD n = GetModuleFileNameA(nullptr, exe, sizeof(exe));
        std::string path(exe, n);
        size_t slash = path.rfind('/');
        // An executable path always holds a '/'; without one the working folder stands in.
        folder = slash == std::string::npos ? std::string("./") : path.substr(0, slash + 1);
        folder += "log";
    }
    if (folder.back() != '/') folder += '/';
    return folder;
}

bool MakeFolder(const std::string& folder) {
    std::string path = folder;
    // The platform creates one level; a closing '/' names the same folder.
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    if (path.empty()) return false;
    if (CreateDirectoryA(path.c_str(), nullptr)) return true;
    return GetLastError() == ERROR_ALREADY_EXISTS;
}

namespace {
inline void TwoDigits(char* out, unsigned v) {
    out[0] = char('0' + (v / 10) % 10);
    out[1] = char('0' + v % 10);
}
}  // namespace

void FormatClock(char* out, const SYSTEMTIME& t) {
    TwoDigits(out, t.wHour);
    out[2] = ':';
    TwoDigits(out + 3, t.wMinute);
    out[5] = ':';
    TwoDigits(out + 6, t.wSecond);
    out[8] = '[';
    unsigned ms = t.wMilliseconds % 1000u;
    out[9] = char('0' + ms / 100);
    TwoDigits(out + 10, ms % 100);
    out[12] = ']';
}

size_t FormatSigned(char* out, int n) {
    char digits[10];
    size_t count = 0;
    // Work on the magnitude as unsigned so that the most negative value is no overflow.
    unsigned magnitude = n < 0 ? 0u - unsigned(n) : unsigned(n);
    do {
        digits[count++] = char('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    size_t written = 0;
    if (n < 0) out[written++] = '-';
    while (count > 0) out[written++] = digits[--count];
    return written;
}

std::string SanitizeSession(const char* text) {
    std::string part;
    for (const char* p = text; *p != '\0' && part.size() < kMaxSessionChars; ++p) {
        char c = *p;
        bool keep = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                    c == '.' || c == '_' || c == '-';
        part += keep ? c : '_';
    }
    return part;
}

unsigned PackDate(int year, int month, int day) {
    static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (year < 1 || year > 9999 || month < 1 || month > 12 || day < 1) return 0;
    bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    int last = kDays[month - 1] + (month == 2 && leap ? 1 : 0);
    if (day > last) return 0;
    return unsigned(year) * 10000u + unsigned(month) * 100u + unsigned(day);
}

std::string LogFilePath(const std::string& folder, const std::string& app,
                        const std::string& log, const std::string& session, unsigned date) {
    std::string path = folder + app + "_" + log;
    if (!session.empty()) {
        path += "_" + session;
    } else if (date != 0) {
        char digits[9];
        unsigned v = date;
        for (int i = 7; i >= 0; --i) {
            digits[i] = char('0' + v % 10);
            v /= 10;
        }
        digits[8] = '\0';
        path += "_";
        path += digits;
    }
    return path + ".log";
}

void CopyCut(const std::string& text, char* buffer, int nSize) {
    if (buffer == nullptr || nSize <= 0) return;
    size_t n = text.size() < size_t(nSize) - 1 ? text.size() : size_t(nSize) - 1;
    std::memcpy(buffer, text.data(), n);
    buffer[n] = '\0';
}

}  // namespace peltrix
