// The log transport of the process: one bounded queue and one writer thread for every
// log client.
//
// Callers copy their records into the batch that is filling, under a lock that is held only
// for the copy. The writer thread takes the whole batch at once (the two batches swap) and
// writes it with buffered I/O, flushing every file it touched once per batch. Switches of
// file (session, date), the registration of a new client and its closing travel through the
// same queue, so they take effect exactly between the records handed in before and after.
//
// The writer object is created on first use and never destroyed: clients may still be used
// while static objects are being destroyed. An exit handler drains the queue and ends the
// thread; from then on records are written by the calling thread itself.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "VelmoraPlatform.h"

namespace peltrix {

// How many bytes of records (plus a small charge per record) the filling batch may hold
// before callers wait. A record that is bigger on its own waits for an empty batch.
constexpr size_t kQueueBytes = size_t(1) << 20;

// The state of one log client.
struct ClientState {
    explicit ClientState(bool text) : textMode(text) {}

    const bool textMode;

    // Guarded by the writer's queue lock.
    std::string folder;  // with a closing '/'
    std::string app;
    std::string log;
    bool opened = false;
    bool closed = false;
    std::string announcedSession;  // the session of the latest marker handed in

    // The writer's side: touched by the writer thread only (by the caller under the queue
    // lock before the client is registered and after the writer thread has ended).
    std::FILE* file = nullptr;
    std::string path;
    std::string session;
    bool dirty = false;
};

// A part of a record; a record is copied from up to a handful of parts.
struct Piece {
    const char* data;
    size_t size;
};

class LogWriter {
public:
    static LogWriter& Instance();

    // Starts the writer thread if it doesn't run yet.
    void Start();
    // Opens the client's first file and registers it; false when the file can't be opened.
    bool Open(ClientState* client, const std::string& folder, const std::string& app,
              const std::string& log);
    // Hands in one record made of the given parts. Dropped when the client isn't open.
    void Record(ClientState* client, const Piece* pieces, size_t count);
    // Switches the client to the file of a session (empty: no session) after what it queued.
    void Session(ClientState* client, const std::string& session);
    // Gives every client (and every later one) the files of a date (YYYYMMDD, not 0).
    void SetDate(unsigned date);
    // Returns when every record handed in before the call is written and flushed.
    void Flush();
    // Writes what the client has queued, closes its file and drops its later records.
    void Close(ClientState* client);
    // The file that the client's next record goes to.
    std::string CurrentPath(ClientState* client);

private:
    enum class Kind : uint32_t { Data, Register, Session, Date, Close };
    struct Entry {
        ClientState* client;
        Kind kind;
        unsigned aux;
        size_t offset;
        size_t size;
    };
    struct Batch {
        std::unique_ptr<char[]> arena;  // not cleared: only the bytes up to used are read
        size_t capacity = 0;
        size_t used = 0;
        std::vector<Entry> entries;
        size_t Charge() const { return used + entries.size() * sizeof(Entry); }
        bool Empty() const { return entries.empty(); }
    };

    LogWriter();
    ~LogWriter() = delete;  // lives until the process ends

    void StartLocked();
    static void AtExit();
    void Stop();
    void Run();

    // Waits until the filling batch has room for charge, or the writer has ended.
    void AwaitRoom(std::unique_lock<std::mutex>& lock, size_t charge);
    void Append(ClientState* client, Kind kind, unsigned aux, const Piece* pieces,
                size_t count, size_t total);
    void WakeWriterLocked();
    void WaitDoneLocked(std::unique_lock<std::mutex>& lock, uint64_t generation);

    // The writer's side: used by the writer thread, or under the queue lock once it ended.
    void WriteBatch(Batch& batch);
    void Apply(const Entry& entry, const char* data);
    void WriteData(ClientState* client, const char* data, size_t size);
    void SwitchFile(ClientState* client);
    void FlushDirty();

    std::mutex m_mutex;                 // the queue lock
    std::condition_variable m_work;     // the writer waits for records
    std::condition_variable m_room;     // callers wait for room in the batch
    std::condition_variable m_done;     // flushers wait for written batches
    Batch m_batches[2];
    Batch* m_fill = &m_batches[0];      // callers append here
    Batch* m_spare = &m_batches[1];     // the writer writes this one
    uint64_t m_fillGeneration = 1;      // number of the filling batch
    uint64_t m_doneGeneration = 0;      // every batch up to this one is written
    int m_roomWaiters = 0;
    int m_bigWaiters = 0;
    int m_doneWaiters = 0;
    bool m_writerIdle = false;
    bool m_started = false;
    bool m_stopRequested = false;
    bool m_stopped = false;             // no writer thread: callers write themselves
    unsigned m_announcedDate = 0;       // the date of the latest SetDate
    DWORD m_startProcess = 0;
    std::thread m_thread;

    std::mutex m_openMutex;             // orders Open against SetDate

    std::vector<ClientState*> m_clients;  // open clients, writer's side
    std::vector<ClientState*> m_dirty;    // clients written in this batch, writer's side
    unsigned m_date = 0;                  // the date the files follow, writer's side
};

}  // namespace peltrix
