// GetCMDOption, both forms, walked over arbitrary texts as a caller's loop walks them: the
// form without sizes with buffers that hold the whole text, the form with sizes with small
// buffers of a size the input picks. The second must agree with the first in every result
// and hold the cut of each of its buffers, and neither may write past a buffer.
//
// Input: a byte with the two buffer sizes (0 to 15 and 0 to 7) and whether the text is null,
// then the text.
#include "FuzzSupport.h"

#include <memory>

using velmora_fuzz::Check;

namespace {

// Whether cut, a buffer of nSize bytes, holds what fits of whole.
bool HoldsCut(const char* szWhole, const char* szCut, size_t nSize) {
    if (nSize == 0) return true;
    size_t nExpected = strnlen(szWhole, nSize - 1);
    return strnlen(szCut, nSize) == nExpected && memcmp(szWhole, szCut, nExpected) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    velmora_fuzz::Input input(pData, nSize);
    const uint8_t sizes = input.Byte();
    const size_t nOptionSize = sizes & 0x0F, nValueSize = (sizes >> 4) & 0x07;
    const bool bNullText = sizes & 0x80;
    const std::string text = input.Text();
    const char* szText = bNullText ? nullptr : text.c_str();

    std::vector<char> option(text.size() + 1, '\0'), value(text.size() + 1, '\0');
    // Exactly the given sizes, so that AddressSanitizer sees a write past them; 0 bytes too.
    std::unique_ptr<char[]> cutOption(new char[nOptionSize]), cutValue(new char[nValueSize]);
    if (nOptionSize) cutOption[0] = '\0';
    if (nValueSize) cutValue[0] = '\0';

    const char* p = szText;
    for (;;) {
        const char* pNext = velmora.GetCMDOption(p, option.data(), value.data());
        const char* pCutNext =
            velmora.GetCMDOption(p, cutOption.get(), nOptionSize, cutValue.get(), nValueSize);
        Check(pNext == pCutNext, "the two forms of GetCMDOption part ways");
        Check(HoldsCut(option.data(), cutOption.get(), nOptionSize) &&
                  HoldsCut(value.data(), cutValue.get(), nValueSize),
              "a sized buffer doesn't hold the cut of the whole one");
        Check(pNext == nullptr || (pNext > p && pNext <= szText + text.size()),
              "GetCMDOption's result doesn't move on within the text");
        if (option[0] == '\0' || pNext == nullptr) break;
        p = pNext;
    }
    return 0;
}
