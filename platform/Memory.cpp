#include "VelmoraPlatform.h"

#include <cstdlib>
#include <cstring>

// Blocks handed between modules (a report text passed to a console, which frees it) are
// plain heap blocks: every module of the process shares the one allocator.
extern "C" HGLOBAL GlobalAlloc(UINT uFlags, SIZE_T dwBytes) {
    void* block = (uFlags & GMEM_ZEROINIT) ? calloc(1, dwBytes ? dwBytes : 1)
                                           : malloc(dwBytes ? dwBytes : 1);
    if (!block) SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return block;
}

extern "C" HGLOBAL GlobalFree(HGLOBAL hMem) {
    free(hMem);
    return nullptr;
}
