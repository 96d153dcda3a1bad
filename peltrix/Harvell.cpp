// The monitor client. The monitor of this version is a file that a watcher (or a test) can
// read: every alert is one line, flushed as soon as it is handed in.
#include "Peltrix.h"

#include "PeltrixInternal.h"

#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

struct CHarvell::Impl {
    // Opens the monitor's file, making the log folder first when the file lies there.
    bool Connect() {
        if (file != nullptr) return true;
        if (inLogFolder) (void)peltrix::MakeFolder(folder);
        file = std::fopen(path.c_str(), "ab");
        return file != nullptr;
    }

    void Disconnect() {
        if (file != nullptr) std::fclose(file);
        file = nullptr;
    }

    std::mutex mutex;  // alerts come from any thread
    std::string app;
    std::string folder;
    std::string path;
    bool inLogFolder = false;
    bool started = false;  // between a successful Start and Stop
    int timeout = 0;       // the time-out of the last Start
    std::FILE* file = nullptr;
};

CHarvell::CHarvell(const char* szAppName, int /*nKind*/, int /*nFlags*/,
                   const char* /*szOptions*/)
    : m_pImpl(new Impl) {
    m_pImpl->app = szAppName != nullptr ? szAppName : "";
}

CHarvell::~CHarvell() {
    m_pImpl->Disconnect();
    delete m_pImpl;
}

int CHarvell::Start(bool bStart, const char* szStart, int nTimeout,
                    const char* /*szOptions*/, int /*nPort1*/, int /*nPort2*/) {
    std::lock_guard<std::mutex> lock(m_pImpl->mutex);
    if (m_pImpl->started) return 1;  // connected already
    m_pImpl->timeout = nTimeout;
    if (szStart != nullptr && *szStart != '\0') {
        m_pImpl->path = szStart;
        m_pImpl->inLogFolder = false;
    } else {
        m_pImpl->folder = peltrix::LogFolder();
        m_pImpl->path = m_pImpl->folder + m_pImpl->app + "_monitor.log";
        m_pImpl->inLogFolder = true;
    }
    // A deferred start connects with the first alert.
    if (bStart && !m_pImpl->Connect()) return 0;
    m_pImpl->started = true;
    return 1;
}

void CHarvell::Stop(int /*nMode*/) {
    std::lock_guard<std::mutex> lock(m_pImpl->mutex);
    m_pImpl->started = false;
    m_pImpl->Disconnect();
}

void CHarvell::AlertMsg(const char* szText) {
    if (szText == nullptr) return;
    SYSTEMTIME now;
    GetPeltrixLocalTime(&now, 0);
    char stamp[peltrix::kClockChars + 1];
    peltrix::FormatClock(stamp, now);
    stamp[peltrix::kClockChars] = ';';

    std::lock_guard<std::mutex> lock(m_pImpl->mutex);
    // Before Start, after a failed Start and after Stop the monitor isn't there: dropped.
    if (!m_pImpl->started || !m_pImpl->Connect()) return;
    std::FILE* file = m_pImpl->file;
    (void)std::fwrite(stamp, 1, sizeof(stamp), file);
    (void)std::fwrite(szText, 1, std::strlen(szText), file);
    (void)std::fwrite("\r\n", 1, 2, file);
    std::fflush(file);
}

int CHarvell::GetStartTimeout() {
    std::lock_guard<std::mutex> lock(m_pImpl->mutex);
    return m_pImpl->timeout;
}
