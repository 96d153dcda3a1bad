// Unlocked shared fields.
//
// Some members and exported variables are read by every reporting thread while another
// thread changes them, with no lock and no ordering: the report level, the log detail, the
// trace switch, the shell thread and its grep text, the status-to-INI flag, the alert repeat
// interval and the like. A report that races with such a change may go either way; that is
// how they are meant to work, and a lock on the report path would cost every thread.
//
// These helpers make each such access a relaxed atomic one through std::atomic_ref: the
// fields keep their plain types and layout (hosts see the same members), a load or store
// compiles to the same single instruction on x86-64, and the race is defined behaviour
// instead of a data race.
#pragma once

#include <atomic>
#include <cstddef>

namespace velmora_core {

template <class T>
inline T RelaxedLoad(const T& field) {
    // atomic_ref needs a non-const referent even for a load; nothing is written here.
    return std::atomic_ref<T>(const_cast<T&>(field)).load(std::memory_order_relaxed);
}

template <class T, class U>
inline void RelaxedStore(T& field, U value) {
    std::atomic_ref<T>(field).store(T(value), std::memory_order_relaxed);
}

// A text field written by one thread while others read it, such as the grep text. A reader
// takes a snapshot byte by byte into its own buffer and works on the snapshot; a racing
// writer may leave it a mix of old and new bytes, which the reader treats like any other
// text (the snapshot is always terminated within its room).
inline void RelaxedStoreText(char* szField, size_t nRoom, const char* szText) {
    if (nRoom == 0) return;
    size_t i = 0;
    for (; i + 1 < nRoom && szText[i] != '\0'; ++i) RelaxedStore(szField[i], szText[i]);
    RelaxedStore(szField[i], '\0');
}

// Copies the field into szSnapshot (nRoom bytes, the field's own size), cut and terminated.
// Returns the snapshot's length.
inline size_t RelaxedLoadText(const char* szField, char* szSnapshot, size_t nRoom) {
    if (nRoom == 0) return 0;
    size_t i = 0;
    for (; i + 1 < nRoom; ++i) {
        char c = RelaxedLoad(szField[i]);
        if (c == '\0') break;
        szSnapshot[i] = c;
    }
    szSnapshot[i] = '\0';
    return i;
}

}  // namespace velmora_core
