// Facts about processes read from /proc: title, start time, command line,
// and which process holds a socket.
//
// Each reader is a thin wrapper over a parser that takes the file's text and
// accepts any bytes, returning nothing (nullopt) for text that does not
// parse. Readers throw RuntimeException "no process with pid:{}" for a pid
// that does not exist (or has been reaped), OutOfRangeException for a pid
// below 1, and otherwise as the file helpers of Util.h do.
//
// Threads: all functions are safe from any thread. What they read is a
// snapshot: the process may change or exit right after.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Tamlo::ProcInfo {

// The process's title (/proc/<pid>/comm: at most 15 bytes, as set by
// prctl(PR_SET_NAME) or taken from the program's name).
std::string title(pid_t pid);
// The comm text without its final newline.
std::string parseTitle(std::string_view commText);

struct StartTime {
  double sinceBoot;  // seconds after the system booted, in clock ticks' steps
  double wallClock;  // seconds since the epoch; the boot time is whole seconds
};
StartTime startTime(pid_t pid);
// Field 22 (starttime, in clock ticks) of /proc/<pid>/stat. The title field
// may hold blanks and parentheses: fields are counted after its last ')'.
std::optional<uint64_t> parseStartTicks(std::string_view statText);
// The "btime" line of /proc/stat: the boot time in seconds since the epoch.
std::optional<uint64_t> parseBootTime(std::string_view procStatText);

// The arguments the process was started with (/proc/<pid>/cmdline). Empty
// for a kernel thread or a zombie.
std::vector<std::string> commandLine(pid_t pid);
// Arguments separated by NUL; the NUL that ends the last one adds none, and
// empty arguments in between are kept.
std::vector<std::string> splitCommandLine(std::string_view cmdlineText);

// The inode of the socket `fd`; throws for a descriptor that is not a socket.
ino_t socketInode(int fd);
// A process that has a descriptor open on the socket `inode` (the lowest
// pid when several share it), or -1 when none is visible.
pid_t socketOwner(ino_t inode);
// The inode in a descriptor's link text "socket:[12345]".
std::optional<ino_t> parseSocketInode(std::string_view linkText);

}  // namespace Tamlo::ProcInfo
