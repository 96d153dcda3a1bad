// The failure class that hosts throw and the library's traced operations catch.
#include "include/Velmora.h"

#include <cstdio>

// The description is copied, so the thrower's buffer may go away. A text longer than the
// 511 characters kept here is cut.
win32_exception::win32_exception(const char* szDescription) {
    snprintf(m_szDescription, sizeof(m_szDescription), "%s", szDescription ? szDescription : "");
}

win32_exception::win32_exception(const win32_exception& other) {
    snprintf(m_szDescription, sizeof(m_szDescription), "%s", other.m_szDescription);
}

win32_exception& win32_exception::operator=(const win32_exception& other) {
    if (this != &other)
        snprintf(m_szDescription, sizeof(m_szDescription), "%s", other.m_szDescription);
    return *this;
}

const char* win32_exception::what() const { return m_szDescription; }

win32_exception::~win32_exception() = default;
