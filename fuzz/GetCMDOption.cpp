// GetCMDOption walked over arbitrary texts without sizes (buffers for the whole text) and with sizes (small ones): the
// second agrees with the first in every result and holds the cut of each buffer; neither writes past a buffer.
// Input: a byte (buffer sizes 0 to 15 and 0 to 7, bit 7: a null text), then the text.
#include "FuzzSupport.h"

#include <memory>

// Whether cut, a buffer of nSize bytes, holds what fits of whole.
static bool HoldsCut(const char* szWhole, const char* szCut, size_t nSize) {
    const size_t nExpected = nSize ? strnlen(szWhole, nSize - 1) : 0;
    return nSize == 0 || (strnlen(szCut, nSize) == nExpected && memcmp(szWhole, szCut, nExpected) == 0);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    velmora_fuzz::Input input(pData, nSize);
    const uint8_t sizes = input.Byte();
    const size_t nOptionSize = sizes & 0x0F, nValueSize = (sizes >> 4) & 0x07;
    const std::string text = input.Text();
    const char* szText = sizes & 0x80 ? nullptr : text.c_str();
    std::vector<char> option(text.size() + 1, '\0'), value(text.size() + 1, '\0');
    // Exactly the given sizes, so that AddressSanitizer sees a write past them; 0 bytes too.
    std::unique_ptr<char[]> cutOption(new char[nOptionSize]()), cutValue(new char[nValueSize]());
    for (const char* p = szText;;) {
        const char* pNext = velmora.GetCMDOption(p, option.data(), value.data());
        Check(pNext == velmora.GetCMDOption(p, cutOption.get(), nOptionSize, cutValue.get(), nValueSize),
              "the two forms of GetCMDOption part ways");
        Check(HoldsCut(option.data(), cutOption.get(), nOptionSize) && HoldsCut(value.data(), cutValue.get(), nValueSize),
              "a sized buffer doesn't hold the cut of the whole one");
        Check(pNext == nullptr || (pNext > p && pNext <= szText + text.size()), "GetCMDOption's result doesn't move on within the text");
        if (option[0] == '\0' || pNext == nullptr) break;
        p = pNext;
    }
    return 0;
}
