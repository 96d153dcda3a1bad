// Arbitrary names locked and unlocked every way, in both modes with both kinds of lock object, on a manager of 1 to 4
// records that must end as it began. One thread does everything, so what would wait for itself is passed over (a lock
// on its own lock of the other kind, a semaphore it holds, a new name while every record is taken).
// Input: a byte (bit 0: mutexes, bit 1: readers and writers, bits 2-3: pool size), then up to 16 operations (a byte, a name).
#include "FuzzSupport.h"

#include <map>

static size_t FreeRecords(const CNameLock& manager) {
    size_t n = 0;
    for (const _tagNameLock* p = manager.pFreeList; p; p = p->pNext) ++n;
    return n;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    velmora_fuzz::Input input(pData, nSize);
    const uint8_t setup = input.Byte();
    const bool bUseMutex = setup & 1, bReadWrite = setup & 2;
    const size_t nPool = 1 + (setup >> 2) % 4;
    CNameLock manager(int(nPool), bUseMutex, bReadWrite);
    Check(FreeRecords(manager) == nPool, "the pool isn't built whole");
    std::map<std::string, std::pair<int, int>> holds;   // writes and reads, by the name as the table keys it
    std::vector<std::pair<std::string, bool>> unlocks;  // name, read lock; in locking order
    for (int i = 0; i < 16 && !input.Done(); ++i) {
        const uint8_t op = input.Byte() % 4;
        const std::string name = input.Text();
        const std::string key = op == 3 ? name.substr(0, 63) : name;  // the guard's copy is cut to 63
        auto found = holds.find(key);
        if (found == holds.end() && holds.size() >= nPool) continue;
        const auto [nWrites, nReads] = found != holds.end() ? found->second : std::pair(0, 0);
        bool bLocked = false;
        if (op == 0 && nReads == 0 && (nWrites == 0 || bUseMutex)) {
            bLocked = manager.LockName(name.c_str());
            Check(bLocked, "LockName refused a name it can have");
        } else if (op == 1 && nReads == 0) {  // one look: only a semaphore of our own holds it out
            bLocked = manager.TryLockName(name.c_str(), 0);
            Check(bLocked == (nWrites == 0 || bUseMutex), "TryLockName answered wrong");
        } else if (op == 2 && (nWrites == 0 || !bReadWrite)) {
            bLocked = manager.ReadLockName(name.c_str());
            Check(bLocked == bReadWrite, "ReadLockName answered wrong for its mode");
        } else if (op == 3 && found == holds.end()) {  // the scope guard, on a name nobody holds
            _G_pNameLock = &manager;
            {
                CSmartNameLock guard(name.c_str());
                Check(manager.mapNames.count(key) == 1, "the guard's name isn't in the table");
            }
            _G_pNameLock = nullptr;
            Check(manager.mapNames.count(key) == 0, "the guard's name stayed in the table");
        }
        if (bLocked) ++(op == 2 ? holds[key].second : holds[key].first), unlocks.emplace_back(name, op == 2);
        Check(manager.mapNames.size() == holds.size() && FreeRecords(manager) == nPool - holds.size(),
              "the table doesn't count the names in use");
    }
    for (auto at = unlocks.rbegin(); at != unlocks.rend(); ++at)
        at->second ? manager.ReadUnlockName(at->first.c_str()) : manager.UnlockName(at->first.c_str());
    Check(manager.mapNames.empty() && manager.pUsedList == nullptr && FreeRecords(manager) == nPool,
          "a name stayed in the table after its last unlock");
    return 0;
}
