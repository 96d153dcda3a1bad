// What the shell's commands and the repeat threads share beyond the members of CVelmora.
//
// One command or one pass of a repeat runs at a time, under the shell lock, so that
// dwShellThreadId, bInShellCommand and szGrepText always describe the one that runs: passes
// of different repeats take turns, and a command waits for a pass in progress. The lock is
// re-entrant, so a subscriber may itself run a shell command.
#pragma once

#include "include/Velmora.h"

namespace velmora_core {

CRITICAL_SECTION* ShellLock();

// The gates a running command or pass sets for the reports: the running thread's id and
// bInShellCommand from construction; the grep text, the id and the flag cleared at the end,
// also when a subscriber throws, so that a failed command can't hold the console shut.
class ShellGates {
public:
    explicit ShellGates(CVelmora& service);
    ~ShellGates();
    ShellGates(const ShellGates&) = delete;
    ShellGates& operator=(const ShellGates&) = delete;

private:
    CVelmora& m_service;
};

// Sets the stop event of every running repeat and refuses new repeats from now on.
void StopAllRepeats(CVelmora& service);
// Returns when every repeat thread has ended, those stopped earlier by an operator included.
void WaitForRepeatThreads();

// A source text is significant up to this many characters (the room of szLastSource); the
// repeat key and the source test use the same cut.
constexpr size_t kSourceRoom = sizeof(CVelmora::szLastSource);

}  // namespace velmora_core
