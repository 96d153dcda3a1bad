// Kernel objects and the process's handle table.
//
// A HANDLE is an index into one table of the process, with a generation in its upper bits,
// so that a stale or closed handle is refused with ERROR_INVALID_HANDLE instead of reaching
// freed memory. A lookup hands out a shared reference: an object stays alive while a wait
// or any other operation on it runs, even when its last handle is closed meanwhile.
#pragma once

#include "VelmoraPlatform.h"

#include <memory>

namespace velmora_platform {

class KernelObject {
public:
    enum class Kind { Event, Mutex, Semaphore, Thread, File, ServiceManager, Service };

    explicit KernelObject(Kind kind) : m_kind(kind) {}
    virtual ~KernelObject() = default;
    KernelObject(const KernelObject&) = delete;
    KernelObject& operator=(const KernelObject&) = delete;

    Kind kind() const { return m_kind; }

    // WaitForSingleObject on this object. Objects that can't be waited on fail.
    virtual DWORD Wait(DWORD dwMilliseconds) {
        (void)dwMilliseconds;
        SetLastError(ERROR_INVALID_HANDLE);
        return WAIT_FAILED;
    }

    // Called when a handle to this object is closed (each handle once).
    virtual void OnHandleClosed() {}

private:
    Kind m_kind;
};

using KernelObjectPtr = std::shared_ptr<KernelObject>;

// Enters the object into the table; null with ERROR_NOT_ENOUGH_MEMORY when the table is full.
HANDLE InsertHandle(KernelObjectPtr object);
// The object of a live handle, or null (and ERROR_INVALID_HANDLE) for anything else.
KernelObjectPtr LookupHandle(HANDLE handle);
// Removes the handle from the table and returns its object (null for an invalid handle).
KernelObjectPtr RemoveHandle(HANDLE handle);

// The object of a handle, of a given kind; null with ERROR_INVALID_HANDLE otherwise.
template <class T>
std::shared_ptr<T> LookupHandleAs(HANDLE handle, KernelObject::Kind kind) {
    KernelObjectPtr object = LookupHandle(handle);
    if (!object) return nullptr;
    if (object->kind() != kind) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return std::static_pointer_cast<T>(object);
}

}  // namespace velmora_platform
