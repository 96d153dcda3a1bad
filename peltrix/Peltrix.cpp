#include "Peltrix.h"

#include "LogWriter.h"
#include "PeltrixInternal.h"

#include <cstring>

using peltrix::LogWriter;
using peltrix::Piece;

namespace {
constexpr size_t kMarkerChars = sizeof(PELTRIX_SESSION_MARKER) - 1;
}  // namespace

struct CPeltrix::Impl {
    explicit Impl(bool bTextMode) : state(bTextMode) {}

    // Forms the record from its parts on the caller's stack and hands the parts to the
    // writer, which copies them into its queue in one go.
    void Submit(const char* szPrefix, const char* szMsg) {
        if (szMsg == nullptr) return;
        if (szPrefix == nullptr && std::strncmp(szMsg, PELTRIX_SESSION_MARKER, kMarkerChars) == 0) {
            LogWriter::Instance().Session(&state, peltrix::SanitizeSession(szMsg + kMarkerChars));
            return;
        }
        Piece pieces[5];
        size_t count = 0;
        const Piece message{szMsg, std::strlen(szMsg)};
        // "HH:MM:SS[mmm];" then, without a prefix, "thread;".
        char head[peltrix::kClockChars + 1 + 11 + 1];
        // ";thread;" behind a prefix.
        char middle[1 + 11 + 1];
        if (state.textMode) {
            SYSTEMTIME now;
            GetPeltrixLocalTime(&now, 0);
            peltrix::FormatClock(head, now);
            size_t headChars = peltrix::kClockChars;
            head[headChars++] = ';';
            const int thread = int(GetCurrentThreadId());
            if (szPrefix != nullptr) {
                size_t middleChars = 0;
                middle[middleChars++] = ';';
                middleChars += peltrix::FormatSigned(middle + middleChars, thread);
                middle[middleChars++] = ';';
                pieces[count++] = Piece{head, headChars};
                pieces[count++] = Piece{szPrefix, std::strlen(szPrefix)};
                pieces[count++] = Piece{middle, middleChars};
            } else {
                headChars += peltrix::FormatSigned(head + headChars, thread);
                head[headChars++] = ';';
                pieces[count++] = Piece{head, headChars};
            }
            pieces[count++] = message;
            pieces[count++] = Piece{";\r\n", 3};
        } else if (szPrefix != nullptr) {
            pieces[count++] = Piece{szPrefix, std::strlen(szPrefix)};
            pieces[count++] = Piece{";", 1};
            pieces[count++] = message;
            pieces[count++] = Piece{"\r\n", 2};
        } else {
            pieces[count++] = message;  // raw: the caller does all the framing
        }
        LogWriter::Instance().Record(&state, pieces, count);
    }

    peltrix::ClientState state;
};

CPeltrix::CPeltrix(bool bTextMode, long /*nQueueHint*/, long /*nRecordHint*/)
    : m_pImpl(new Impl(bTextMode)) {}

CPeltrix::~CPeltrix() {
    // Closing waits until the writer is done with this client; only then may it go.
    Close();
    delete m_pImpl;
}

int CPeltrix::Open(const char* szAppName, const char* szLogName) {
    std::string folder = peltrix::LogFolder();
    // A folder that can't be made shows when its file can't be opened.
    (void)peltrix::MakeFolder(folder);
    bool opened = LogWriter::Instance().Open(&m_pImpl->state, folder,
                                             szAppName != nullptr ? szAppName : "",
                                             szLogName != nullptr ? szLogName : "");
    return opened ? 1 : 0;
}

void CPeltrix::Log(const char* szPrefix, const char* szMsg) { m_pImpl->Submit(szPrefix, szMsg); }

void CPeltrix::LogLongMsg(const char* szPrefix, char* szMsg) { m_pImpl->Submit(szPrefix, szMsg); }

void CPeltrix::FlushLog() { LogWriter::Instance().Flush(); }

void CPeltrix::GetFullLogPath(char* szBuffer, int nSize) {
    if (szBuffer == nullptr || nSize <= 0) return;
    peltrix::CopyCut(LogWriter::Instance().CurrentPath(&m_pImpl->state), szBuffer, nSize);
}

void CPeltrix::Close() { LogWriter::Instance().Close(&m_pImpl->state); }
