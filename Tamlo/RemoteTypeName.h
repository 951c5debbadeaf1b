// The dynamic type of an object in another process, named from its vtable.
//
// The first word of an object of a polymorphic class points into the
// vtable of its dynamic type. remoteTypeName() reads that word from the
// process, finds the mapping and the ELF file that hold what it points to,
// and names the type from the vtable symbol ("_ZTV<type>") that covers it,
// demangled. The file's full symbol table is used when it has one, the
// dynamic one otherwise, so types whose vtables are neither exported nor
// kept in .symtab cannot be named. Files are opened through
// /proc/<pid>/root, so a process in another mount namespace works too.
//
// Reading another process's memory needs the permission ptrace would: the
// same user (or CAP_SYS_PTRACE), subject to the Yama ptrace scope.
//
// Threads: any thread; nothing is shared between calls.
#pragma once

#include <sys/types.h>
#include <cstdint>
#include <string>

namespace Tamlo {

class Mappings;

// The demangled name of the type of the object at `objectAddress` in
// process `pid`, for example "Tamlo::RuntimeException". Failures name the pid
// and the addresses involved:
//   - RuntimeException: no such process, or the word at the address does not
//     point into a vtable of a known type ("... is not a vtable pointer: ...");
//   - OutOfRangeException: the address cannot be read in that process;
//   - NoPermissionException: the process is not ours to read;
//   - CorruptionDetectedException: the ELF file holding the word is damaged.
std::string remoteTypeName(pid_t pid, uintptr_t objectAddress);
// As above, with the process's mappings already read (Mappings::ofProcess),
// for naming many objects at once.
std::string remoteTypeName(pid_t pid, uintptr_t objectAddress, Mappings const& mappings);

}  // namespace Tamlo
