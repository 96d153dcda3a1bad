// Helpers shared by the log client, the log writer and the monitor client.
#pragma once

#include "Peltrix.h"

#include <cstddef>
#include <string>

namespace peltrix {

// The folder of the log files, always with a closing '/': $PELTRIX_LOG_FOLDER when it is set
// and not empty, else "<executable folder>/log/".
std::string LogFolder();

// Creates the last level of a folder (its parent has to exist). True when the folder is there
// afterwards, be it that it was made now or that it existed already.
bool MakeFolder(const std::string& folder);

// The characters of the time stamp "HH:MM:SS[mmm]" that starts text records and alerts.
constexpr size_t kClockChars = 13;
// Writes the time stamp of t into out (kClockChars characters, no terminator).
void FormatClock(char* out, const SYSTEMTIME& t);

// Writes n as a signed decimal into out (room for 11 characters); the number of characters.
size_t FormatSigned(char* out, int n);

// The session text as a part of a file name: [A-Za-z0-9._-] are kept, anything else becomes
// '_', and the result is cut at kMaxSessionChars characters.
constexpr size_t kMaxSessionChars = 64;
std::string SanitizeSession(const char* text);

// A calendar date packed as YYYYMMDD, or 0 when (year, month, day) is not a day of the
// Gregorian calendar between the years 1 and 9999.
unsigned PackDate(int year, int month, int day);

// The file of a log client: "<folder><app>_<log>[_<session> | _<YYYYMMDD>].log". A session
// text wins over the date; date 0 means none.
std::string LogFilePath(const std::string& folder, const std::string& app,
                        const std::string& log, const std::string& session, unsigned date);

// Copies text into a caller's buffer of nSize bytes, cut to nSize - 1 characters with a
// terminator; nothing is written when nSize is not positive or the buffer is null.
void CopyCut(const std::string& text, char* buffer, int nSize);

}  // namespace peltrix
