#include "KernelObject.h"

#include <array>
#include <atomic>
#include <mutex>
#include <vector>

namespace velmora_platform {
namespace {

// Slots live in chunks that never move, so a lookup only has to lock the slot's stripe.
constexpr uint32_t kChunkBits = 12;
constexpr uint32_t kChunkSize = 1u << kChunkBits;
constexpr uint32_t kMaxChunks = 1024;  // up to 4M handles open at once
constexpr uint32_t kStripes = 64;

struct Slot {
    KernelObjectPtr object;
    uint32_t generation = 0;
};

struct HandleTable {
    std::array<std::atomic<Slot*>, kMaxChunks> chunks{};
    std::array<std::mutex, kStripes> stripes;
    std::mutex allocMutex;           // guards freeList, nextIndex and chunk creation
    std::vector<uint32_t> freeList;  // reused last in, first out
    uint32_t nextIndex = 0;

    ~HandleTable() {
        for (auto& chunk : chunks) delete[] chunk.load();
    }
};

HandleTable& Table() {
    // Never destroyed: handles may still be closed by static destructors of other modules.
    static HandleTable* table = new HandleTable;
    return *table;
}

uint64_t Encode(uint32_t index, uint32_t generation) {
    return (uint64_t(generation) << 32) | (uint64_t(index + 1) << 2);
}

bool Decode(HANDLE handle, uint32_t* index, uint32_t* generation) {
    uint64_t value = reinterpret_cast<uintptr_t>(handle);
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE || (value & 3) != 0) return false;
    uint64_t low = (value & 0xFFFFFFFFu) >> 2;
    if (low == 0 || low > uint64_t(kChunkSize) * kMaxChunks) return false;
    *index = uint32_t(low - 1);
    *generation = uint32_t(value >> 32);
    return true;
}

Slot* SlotOf(HandleTable& table, uint32_t index) {
    Slot* chunk = table.chunks[index >> kChunkBits].load(std::memory_order_acquire);
    return chunk ? &chunk[index & (kChunkSize - 1)] : nullptr;
}

}  // namespace

HANDLE InsertHandle(KernelObjectPtr object) {
    HandleTable& table = Table();
    uint32_t index;
    {
        std::lock_guard<std::mutex> lock(table.allocMutex);
        if (!table.freeList.empty()) {
            index = table.freeList.back();
            table.freeList.pop_back();
        } else {
            if (table.nextIndex >= kChunkSize * kMaxChunks) {
                SetLastError(ERROR_NOT_ENOUGH_MEMORY);
                return nullptr;
            }
            index = table.nextIndex++;
            auto& chunk = table.chunks[index >> kChunkBits];
            if (!chunk.load(std::memory_order_relaxed))
                chunk.store(new Slot[kChunkSize], std::memory_order_release);
        }
    }
    Slot* slot = SlotOf(table, index);
    std::lock_guard<std::mutex> lock(table.stripes[index % kStripes]);
    // Generation 0 is never handed out, so that a handle can never be all zero bits above.
    if (++slot->generation == 0) slot->generation = 1;
    slot->object = std::move(object);
    return reinterpret_cast<HANDLE>(uintptr_t(Encode(index, slot->generation)));
}

KernelObjectPtr LookupHandle(HANDLE handle) {
    HandleTable& table = Table();
    uint32_t index, generation;
    if (Decode(handle, &index, &generation)) {
        if (Slot* slot = SlotOf(table, index)) {
            std::lock_guard<std::mutex> lock(table.stripes[index % kStripes]);
            if (slot->generation == generation && slot->object) return slot->object;
        }
    }
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
}

KernelObjectPtr RemoveHandle(HANDLE handle) {
    HandleTable& table = Table();
    uint32_t index, generation;
    KernelObjectPtr object;
    if (Decode(handle, &index, &generation)) {
        if (Slot* slot = SlotOf(table, index)) {
            std::lock_guard<std::mutex> lock(table.stripes[index % kStripes]);
            if (slot->generation == generation && slot->object) object = std::move(slot->object);
        }
    }
    if (!object) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(table.allocMutex);
    table.freeList.push_back(index);
    return object;
}

}  // namespace velmora_platform
