// Name lock names: arbitrary names (empty, long, any bytes but NUL) locked and unlocked
// through LockName, TryLockName, ReadLockName and the scope guard, in both modes and with
// both kinds of lock object. Every input builds a manager of its own (a pool of 1 to 4
// records) and must leave it as it found it: no name in the table, every record free.
//
// One thread does everything, so an operation that would wait for itself is passed over:
// a writer's lock on its own read lock (or a reader's on its own write lock), a second lock
// of a semaphore it holds, and a new name while every record is taken. Whatever is locked
// is unlocked in reverse order at the end.
//
// Input: a byte with the mode, the kind and the pool size, then up to 16 operations, each a
// byte (which operation) and a name.
#include "FuzzSupport.h"

#include <map>

using velmora_fuzz::Check;

namespace {

struct Holds {
    int nWrites = 0;
    int nReads = 0;
};

size_t FreeRecords(const CNameLock& manager) {
    size_t n = 0;
    for (const _tagNameLock* p = manager.pFreeList; p; p = p->pNext) ++n;
    return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    velmora_fuzz::Input input(pData, nSize);
    const uint8_t setup = input.Byte();
    const bool bUseMutex = setup & 1, bReadWrite = setup & 2;
    const int nPool = 1 + (setup >> 2) % 4;
    CNameLock manager(nPool, bUseMutex, bReadWrite);
    Check(FreeRecords(manager) == size_t(nPool), "the pool isn't built whole");

    std::map<std::string, Holds> holds;                 // by the whole name, as the table keys
    std::vector<std::pair<std::string, bool>> unlocks;  // name, read lock; in locking order
    for (int i = 0; i < 16 && !input.Done(); ++i) {
        const uint8_t op = input.Byte() % 4;
        const std::string name = input.Text();
        // The guard locks its own copy of the name, cut to 63 characters.
        const std::string key = op == 3 ? name.substr(0, 63) : name;
        auto found = holds.find(key);
        if (found == holds.end() && holds.size() >= size_t(nPool)) continue;
        const Holds held = found != holds.end() ? found->second : Holds{};

        switch (op) {
        case 0:  // LockName
            if (held.nReads > 0 || (held.nWrites > 0 && !bUseMutex)) break;
            Check(manager.LockName(name.c_str()), "LockName refused a name it can have");
            ++holds[key].nWrites;
            unlocks.emplace_back(name, false);
            break;
        case 1: {  // TryLockName with one look: only a semaphore of our own holds it out
            if (held.nReads > 0) break;
            bool bLocked = manager.TryLockName(name.c_str(), 0);
            Check(bLocked == (held.nWrites == 0 || bUseMutex), "TryLockName answered wrong");
            if (!bLocked) break;
            ++holds[key].nWrites;
            unlocks.emplace_back(name, false);
            break;
        }
        case 2: {  // ReadLockName
            if (held.nWrites > 0 && bReadWrite) break;
            bool bLocked = manager.ReadLockName(name.c_str());
            Check(bLocked == bReadWrite, "ReadLockName answered wrong for its mode");
            if (!bLocked) break;
            ++holds[key].nReads;
            unlocks.emplace_back(name, true);
            break;
        }
        case 3:  // the scope guard, on a name nobody holds
            if (found != holds.end()) break;
            _G_pNameLock = &manager;
            {
                CSmartNameLock guard(name.c_str());
                Check(manager.mapNames.count(key) == 1, "the guard's name isn't in the table");
            }
            _G_pNameLock = nullptr;
            Check(manager.mapNames.count(key) == 0, "the guard's name stayed in the table");
            break;
        }
        Check(manager.mapNames.size() == holds.size() &&
                  FreeRecords(manager) == size_t(nPool) - holds.size(),
              "the table doesn't count the names in use");
    }

    for (auto at = unlocks.rbegin(); at != unlocks.rend(); ++at) {
        if (at->second)
            manager.ReadUnlockName(at->first.c_str());
        else
            manager.UnlockName(at->first.c_str());
    }
    Check(manager.mapNames.empty() && manager.pUsedList == nullptr &&
              FreeRecords(manager) == size_t(nPool),
          "a name stayed in the table after its last unlock");
    return 0;
}
