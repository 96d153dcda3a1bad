// Small text helpers shared by the subsystems.
#pragma once

#include <cstddef>
#include <cstring>

namespace velmora_core {

inline char AsciiLower(char c) { return (c >= 'A' && c <= 'Z') ? char(c - 'A' + 'a') : c; }

// Byte-by-byte equality with the ASCII letters folded, whatever the locale.
inline bool AsciiEqualNoCase(const char* a, const char* b) {
    for (;; ++a, ++b) {
        if (AsciiLower(*a) != AsciiLower(*b)) return false;
        if (*a == '\0') return true;
    }
}

// Copies [begin, end) into a buffer of nSize bytes, cut to nSize - 1 characters, and
// terminates it. A buffer of size 0 is left alone.
inline void CopyRange(char* szDest, size_t nSize, const char* begin, const char* end) {
    if (nSize == 0) return;
    size_t n = size_t(end - begin);
    if (n > nSize - 1) n = nSize - 1;
    memcpy(szDest, begin, n);
    szDest[n] = '\0';
}

// Copies a terminated text into a buffer of nSize bytes, cut to fit, terminated.
inline void CopyText(char* szDest, size_t nSize, const char* szSource) {
    CopyRange(szDest, nSize, szSource, szSource + strlen(szSource));
}

}  // namespace velmora_core
