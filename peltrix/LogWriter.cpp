#include "LogWriter.h"

#include "PeltrixInternal.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <system_error>

namespace peltrix {

LogWriter& LogWriter::Instance() {
    // Made on first use and never destroyed: clients owned by static objects of the host may
    // still write and close while the process exits.
    static LogWriter* const instance = new LogWriter();
    return *instance;
}

LogWriter::LogWriter() {
    for (Batch& batch : m_batches) {
        batch.arena.reset(new char[kQueueBytes]);
        batch.capacity = kQueueBytes;
        batch.entries.reserve(kQueueBytes / 64);
    }
}

void LogWriter::Start() {
    std::lock_guard<std::mutex> lock(m_mutex);
    StartLocked();
}

void LogWriter::StartLocked() {
    if (m_started) return;
    m_started = true;
    m_startProcess = GetCurrentProcessId();
    try {
        m_thread = std::thread([this] { Run(); });
    } catch (const std::system_error&) {
        // Without a writer thread the callers write their records themselves.
        m_stopRequested = true;
        m_stopped = true;
        return;
    }
    std::atexit(&LogWriter::AtExit);
}

void LogWriter::AtExit() { Instance().Stop(); }

// Drains the queue and ends the writer thread. Records handed in afterwards (by the
// destructors of static objects, say) are written by their callers.
void LogWriter::Stop() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopRequested) return;
        m_stopRequested = true;
        if (m_startProcess != GetCurrentProcessId()) {
            // A child made by fork has no copy of the writer thread: nothing to wait for.
            m_stopped = true;
            m_room.notify_all();
            m_done.notify_all();
            return;
        }
        m_work.notify_one();
        m_room.notify_all();
    }
    if (m_thread.joinable()) m_thread.join();
}

void LogWriter::Run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        while (m_fill->Empty() && !m_stopRequested) {
            m_writerIdle = true;
            m_work.wait(lock);
        }
        m_writerIdle = false;
        if (m_fill->Empty()) break;  // asked to stop, and everything is written
        std::swap(m_fill, m_spare);
        uint64_t generation = m_fillGeneration++;
        if (m_roomWaiters > 0) m_room.notify_all();
        lock.unlock();
        WriteBatch(*m_spare);
        lock.lock();
        m_doneGeneration = generation;
        if (m_doneWaiters > 0) m_done.notify_all();
    }
    m_stopped = true;
    m_room.notify_all();
    m_done.notify_all();
}

void LogWriter::AwaitRoom(std::unique_lock<std::mutex>& lock, size_t charge) {
    if (charge > kQueueBytes) {
        // Bigger than the queue: it waits for an empty batch and has it to itself. Smaller
        // records wait behind it, so that it isn't starved by a steady stream of them.
        ++m_bigWaiters;
        while (!m_stopped && (m_stopRequested || !m_fill->Empty())) {
            ++m_roomWaiters;
            m_room.wait(lock);
            --m_roomWaiters;
        }
        --m_bigWaiters;
        if (m_roomWaiters > 0) m_room.notify_all();
        return;
    }
    while (!m_stopped && (m_stopRequested || m_bigWaiters > 0 ||
                          m_fill->Charge() + charge > kQueueBytes)) {
        ++m_roomWaiters;
        m_room.wait(lock);
        --m_roomWaiters;
    }
}

void LogWriter::Append(ClientState* client, Kind kind, unsigned aux, const Piece* pieces,
                       size_t count, size_t total) {
    Batch& batch = *m_fill;
    // Only a record bigger than the queue (alone in its batch) grows the arena.
    if (batch.used + total > batch.capacity) {
        std::unique_ptr<char[]> bigger(new char[batch.used + total]);
        if (batch.used > 0) std::memcpy(bigger.get(), batch.arena.get(), batch.used);
        batch.arena = std::move(bigger);
        batch.capacity = batch.used + total;
    }
    char* out = batch.arena.get() + batch.used;
    for (size_t i = 0; i < count; ++i) {
        if (pieces[i].size == 0) continue;
        std::memcpy(out, pieces[i].data, pieces[i].size);
        out += pieces[i].size;
    }
    batch.entries.push_back(Entry{client, kind, aux, batch.used, total});
    batch.used += total;
}

void LogWriter::WakeWriterLocked() {
    if (m_writerIdle) {
        m_writerIdle = false;
        m_work.notify_one();
    }
}

void LogWriter::WaitDoneLocked(std::unique_lock<std::mutex>& lock, uint64_t generation) {
    ++m_doneWaiters;
    while (m_doneGeneration < generation && !m_stopped) m_done.wait(lock);
    --m_doneWaiters;
}

bool LogWriter::Open(ClientState* client, const std::string& folder, const std::string& app,
                     const std::string& log) {
    // Held across the opening so that a date given meanwhile can't be missed: the date is
    // either in the name opened here or in a Date entry queued behind the registration.
    std::lock_guard<std::mutex> openLock(m_openMutex);
    unsigned date;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (client->closed) return false;  // a closed client stays closed
        if (client->opened) return true;
        client->folder = folder;
        client->app = app;
        client->log = log;
        date = m_announcedDate;
    }
    std::string path = LogFilePath(folder, app, log, std::string(), date);
    // Append mode: whatever the file holds already is kept.
    std::FILE* file = std::fopen(path.c_str(), "ab");
    if (file == nullptr) return false;

    std::unique_lock<std::mutex> lock(m_mutex);
    client->file = file;
    client->path = path;
    StartLocked();
    AwaitRoom(lock, sizeof(Entry));
    client->opened = true;
    if (m_stopped) {
        m_clients.push_back(client);
        return true;
    }
    Append(client, Kind::Register, 0, nullptr, 0, 0);
    WakeWriterLocked();
    return true;
}

void LogWriter::Record(ClientState* client, const Piece* pieces, size_t count) {
    size_t total = 0;
    for (size_t i = 0; i < count; ++i) total += pieces[i].size;
    if (total == 0) return;  // nothing to write

    std::unique_lock<std::mutex> lock(m_mutex);
    if (!client->opened || client->closed) return;
    AwaitRoom(lock, total + sizeof(Entry));
    if (client->closed) return;
    if (m_stopped) {
        for (size_t i = 0; i < count; ++i) WriteData(client, pieces[i].data, pieces[i].size);
        FlushDirty();
        return;
    }
    Append(client, Kind::Data, 0, pieces, count, total);
    WakeWriterLocked();
}

void LogWriter::Session(ClientState* client, const std::string& session) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!client->opened || client->closed) return;
    AwaitRoom(lock, session.size() + sizeof(Entry));
    if (client->closed) return;
    client->announcedSession = session;
    if (m_stopped) {
        client->session = session;
        SwitchFile(client);
        return;
    }
    Piece piece{session.data(), session.size()};
    Append(client, Kind::Session, 0, &piece, 1, session.size());
    WakeWriterLocked();
}

void LogWriter::SetDate(unsigned date) {
    std::lock_guard<std::mutex> openLock(m_openMutex);
    std::unique_lock<std::mutex> lock(m_mutex);
    m_announcedDate = date;
    if (m_started) AwaitRoom(lock, sizeof(Entry));
    if (!m_started || m_stopped) {
        // No writer thread (yet or any more): the switch is made here, under the queue lock.
        Entry entry{nullptr, Kind::Date, date, 0, 0};
        Apply(entry, nullptr);
        return;
    }
    Append(nullptr, Kind::Date, date, nullptr, 0, 0);
    WakeWriterLocked();
}

void LogWriter::Flush() {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_started || m_stopped) return;  // without a writer thread nothing is pending
    // Records handed in so far are in the filling batch or in the one being written.
    uint64_t target = m_fill->Empty() ? m_fillGeneration - 1 : m_fillGeneration;
    if (target <= m_doneGeneration) return;
    WakeWriterLocked();
    WaitDoneLocked(lock, target);
}

void LogWriter::Close(ClientState* client) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!client->opened || client->closed) return;
    client->closed = true;  // from here on its records are dropped
    AwaitRoom(lock, sizeof(Entry));
    if (m_stopped) {
        Entry entry{client, Kind::Close, 0, 0, 0};
        Apply(entry, nullptr);
        FlushDirty();
        return;
    }
    Append(client, Kind::Close, 0, nullptr, 0, 0);
    uint64_t generation = m_fillGeneration;
    WakeWriterLocked();
    // The client may be destroyed right after: the writer must be done with it.
    WaitDoneLocked(lock, generation);
}

std::string LogWriter::CurrentPath(ClientState* client) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (client->folder.empty()) return {};  // never opened
    return LogFilePath(client->folder, client->app, client->log, client->announcedSession,
                       m_announcedDate);
}

void LogWriter::WriteBatch(Batch& batch) {
    const char* base = batch.arena.get();
    const size_t count = batch.entries.size();
    for (size_t i = 0; i < count;) {
        const Entry& entry = batch.entries[i];
        if (entry.kind != Kind::Data) {
            Apply(entry, base + entry.offset);
            ++i;
            continue;
        }
        // Neighbouring records of one client lie side by side: one write for all of them.
        size_t end = entry.offset + entry.size;
        size_t next = i + 1;
        while (next < count && batch.entries[next].kind == Kind::Data &&
               batch.entries[next].client == entry.client && batch.entries[next].offset == end) {
            end += batch.entries[next].size;
            ++next;
        }
        WriteData(entry.client, base + entry.offset, end - entry.offset);
        i = next;
    }
    FlushDirty();
    batch.used = 0;
    batch.entries.clear();
    if (batch.capacity > kQueueBytes) {  // grown for a big record: back to the usual size
        batch.arena.reset(new char[kQueueBytes]);
        batch.capacity = kQueueBytes;
    }
}

void LogWriter::Apply(const Entry& entry, const char* data) {
    ClientState* client = entry.client;
    switch (entry.kind) {
        case Kind::Data:
            WriteData(client, data, entry.size);
            break;
        case Kind::Register:
            m_clients.push_back(client);
            break;
        case Kind::Session:
            client->session.assign(data, entry.size);
            SwitchFile(client);
            break;
        case Kind::Date:
            m_date = entry.aux;
            for (ClientState* open : m_clients) {
                if (open->session.empty()) SwitchFile(open);  // a session text wins
            }
            break;
        case Kind::Close:
            if (client->file != nullptr) {
                std::fclose(client->file);
                client->file = nullptr;
            }
            m_clients.erase(std::remove(m_clients.begin(), m_clients.end(), client),
                            m_clients.end());
            break;
    }
}

void LogWriter::WriteData(ClientState* client, const char* data, size_t size) {
    if (client->file == nullptr || size == 0) return;
    // A failed write can't be reported to anyone: the record is lost.
    (void)std::fwrite(data, 1, size, client->file);
    if (!client->dirty) {
        client->dirty = true;
        m_dirty.push_back(client);
    }
}

void LogWriter::FlushDirty() {
    for (ClientState* client : m_dirty) {
        if (client->file != nullptr) std::fflush(client->file);
        client->dirty = false;
    }
    m_dirty.clear();
}

void LogWriter::SwitchFile(ClientState* client) {
    std::string path =
        LogFilePath(client->folder, client->app, client->log, client->session, m_date);
    if (client->file != nullptr && path == client->path) return;
    std::FILE* file = std::fopen(path.c_str(), "ab");
    // When the new file can't be opened the client goes on writing where it wrote so far,
    // rather than losing its records.
    if (file == nullptr) return;
    if (client->file != nullptr) std::fclose(client->file);
    client->file = file;
    client->path = path;
}

}  // namespace peltrix
