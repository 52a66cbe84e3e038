#pragma once

// The process's own state: what it must not take over from whoever started it.

#include <cstddef>

// Blocks of memory of so many bytes and more malloc(3) maps by themselves, so that freeing one
// gives it back to the system.
inline constexpr size_t kMmapThresholdBytes = size_t{128} * 1024;

// Before anything is read or opened:
//
// - Opens /dev/null (in a root folder without one, the root folder) on every standard descriptor
//   that came closed, so that no file of ours takes its number, as far as a descriptor can be had:
//   where there is none the run goes on, since the message matters more.
// - Ignores SIGPIPE and SIGXFSZ, so that neither a sendmail that stops reading nor a limit on file
//   sizes ends the run (children get both back at their defaults).
// - Has freed blocks of memory of kMmapThresholdBytes and more go back to the system.
// - In a process with more rights than its caller (getauxval(3), AT_SECURE) leaves of the
//   environment RESP_RECIPIENT alone, sets PATH to the system's own, and the file mode mask to 022.
//   Both go to the children too, which run as root and are no longer seen to be started by somebody
//   with fewer rights. Elsewhere caller and program have the same rights, and both are kept.
void prepare_process();

// Takes user and group 0, in that order. Where that is not allowed the run goes on as it is.
void take_root_identity();

// Keeps the process's memory, which is about to hold a message, from core files, core dump handlers
// and from debuggers of users without privileges: PR_SET_DUMPABLE in prctl(2). A child has it until
// it executes another program. To be called after take_root_identity(), which resets it.
void forbid_core_dumps();
