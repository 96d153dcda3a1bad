// The lines of the status file ServerRuntimeStatus.ini, a private profile file that a
// watcher outside the server reads.
//
// A module makes a value visible there by reporting a status text of type 2 through
// LogFortmatedReport: free words, the word Status, a bracket, then pairs of key, colon and
// value, as in
//
//     Order Engine Status[Orders:120 Fills:30]
//
// which gives, in the section Order_Engine_Status, the lines
//
//     Order_Engine_Status[Orders]=120
//     Order_Engine_Status[Fills]=30
//
// The section is the text up to and including the word Status, with every blank made "_";
// a section of 256 characters or more skips the whole text. A key is the section, "[", the
// key's own text up to its colon (blanks kept) and "]". A value runs from behind its colon
// to the first blank behind the colon; only a text with no blank at all behind the colon
// ends the value at the first "]". So the blank wins over the bracket: in
// "Status[a:1 b:2] done" the value of b is "2]", and the next pair is looked for one
// character behind the value's end. A pair without a colon or without an end ends the text.
//
// The key and the value each have a buffer of 256 bytes: a longer one is cut to 255
// characters, never written past. Blanks are the space character.
//
// Runs on the reporting thread without a lock: the buffers are local, and the platform's
// WritePrivateProfileStringA orders concurrent writers of the file. Its result isn't looked
// at; a status line that can't be written costs the report nothing.
#include "reporting/StatusFileLines.h"

#include <cstring>

namespace {

constexpr char kStatusMarker[] = "Status[";
// The section ends with the word Status, which is the marker without its bracket.
constexpr size_t kStatusWordLength = sizeof("Status") - 1;
constexpr size_t kMarkerLength = sizeof(kStatusMarker) - 1;

// Section, key and value: 255 characters and a terminator each.
constexpr size_t kTextSize = 256;

// Appends nLength characters of pText as far as they fit, keeping szBuffer terminated.
void AppendCut(char* szBuffer, size_t& nUsed, const char* pText, size_t nLength) {
    size_t nRoom = kTextSize - 1 - nUsed;
    size_t nCopy = nLength < nRoom ? nLength : nRoom;
    memcpy(szBuffer + nUsed, pText, nCopy);
    nUsed += nCopy;
    szBuffer[nUsed] = '\0';
}

}  // namespace

namespace velmora_core {

void WriteStatusFileLines(Report_Types::DEF nType, const char* szText,
                          const char* szStatusFile) {
    if (nType != Report_Types::REPORT_RUNTIME_STATE) return;
    if (szText == nullptr || szStatusFile == nullptr || szStatusFile[0] == '\0') return;
    const char* pMarker = strstr(szText, kStatusMarker);
    if (pMarker == nullptr) return;

    // The section: the text from its start up to and including the word Status.
    size_t nSectionLength = size_t(pMarker - szText) + kStatusWordLength;
    if (nSectionLength >= kTextSize) return;
    char szSection[kTextSize];
    memcpy(szSection, szText, nSectionLength);
    szSection[nSectionLength] = '\0';
    for (size_t i = 0; i < nSectionLength; ++i)
        if (szSection[i] == ' ') szSection[i] = '_';

    const char* pCursor = pMarker + kMarkerLength;
    for (;;) {
        const char* pColon = strchr(pCursor, ':');
        if (pColon == nullptr) return;
        const char* pValue = pColon + 1;
        const char* pEnd = strchr(pValue, ' ');
        if (pEnd == nullptr) pEnd = strchr(pValue, ']');
        if (pEnd == nullptr) return;  // a value without an end isn't written

        char szKey[kTextSize];
        size_t nKey = 0;
        szKey[0] = '\0';
        AppendCut(szKey, nKey, szSection, nSectionLength);
        AppendCut(szKey, nKey, "[", 1);
        AppendCut(szKey, nKey, pCursor, size_t(pColon - pCursor));
        AppendCut(szKey, nKey, "]", 1);

        char szValue[kTextSize];
        size_t nValue = 0;
        szValue[0] = '\0';
        AppendCut(szValue, nValue, pValue, size_t(pEnd - pValue));

        WritePrivateProfileStringA(szSection, szKey, szValue, szStatusFile);
        pCursor = pEnd + 1;
    }
}

}  // namespace velmora_core
