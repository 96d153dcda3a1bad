// The console block: the memory that a report hands to a console.
//
// A block is 768 bytes from GlobalAlloc (flags 0). Most reports put a stamp of 21 characters
// "[MM/DD HH:MM:SS.mmm] " in bytes 0 to 20 and their text from byte 21 on; byte 767 is
// always 0. The block belongs to the report that allocated it until the report calls the
// console with it; from that call on it is the console's, which frees it with GlobalFree. A
// report that doesn't call the console frees the block itself. ConsoleBlock keeps that
// rule on every path, also when a host's exception unwinds the report.
#pragma once

#include "include/Velmora.h"

#include <cstddef>
#include <cstdio>

namespace velmora_core {

constexpr size_t kBlockSize = 768;
// "[MM/DD HH:MM:SS.mmm] ": the stamp in front of the text of a console block.
constexpr size_t kStampLength = 21;
constexpr char kStampFormat[] = "[%02d/%02d %02d:%02d:%02d.%03d] ";
// The room of the text behind the stamp, its terminator included: bytes 21 to 767.
constexpr size_t kBlockTextRoom = kBlockSize - kStampLength;
static_assert(kBlockTextRoom == 747);

// A console block while it belongs to the report: freed when the owner goes away, unless it
// was released to the console first.
class ConsoleBlock {
public:
    ConsoleBlock() = default;
    explicit ConsoleBlock(char* szBlock) : m_szBlock(szBlock) {}
    ~ConsoleBlock() { Free(); }
    ConsoleBlock(const ConsoleBlock&) = delete;
    ConsoleBlock& operator=(const ConsoleBlock&) = delete;

    bool Allocate() {
        m_szBlock = static_cast<char*>(GlobalAlloc(0, kBlockSize));
        return m_szBlock != nullptr;
    }
    char* Get() const { return m_szBlock; }
    // The block passes to the console with the call that follows.
    char* Release() {
        char* szBlock = m_szBlock;
        m_szBlock = nullptr;
        return szBlock;
    }
    void Free() {
        if (m_szBlock != nullptr) GlobalFree(m_szBlock);
        m_szBlock = nullptr;
    }

private:
    char* m_szBlock = nullptr;
};

// Writes the stamp of the local time alone into bytes 0 to 20 of a block, terminated at
// byte 21, where the text of a formatted report goes.
inline void WriteConsoleStamp(char* szBlock) {
    SYSTEMTIME st;
    GetPeltrixLocalTime(&st, 0);
    snprintf(szBlock, kBlockSize, kStampFormat, int(st.wMonth), int(st.wDay), int(st.wHour),
             int(st.wMinute), int(st.wSecond), int(st.wMilliseconds));
}

}  // namespace velmora_core
