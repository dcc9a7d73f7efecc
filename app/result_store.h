// The result file after the main loop, and the maintenance-script mode
// (-test).
#pragma once

#include <cstdint>

// The entry point's first step, before the host opens a descriptor of its
// own: when storePath names one of the host's descriptors (/dev/fd/N,
// /proc/self/fd/N, /dev/stdin, /dev/stdout, /dev/stderr) and that is open,
// it is the caller's, held for StoreResult; above 2 it is kept from every
// process the host starts.  Any other path holds nothing.
void HoldResultDescriptor(const char* storePath);
// In a restart's child before exec: the held descriptor goes on to the new
// host, whose command line names it.
void PassResultDescriptorOn();
// Writes the page's result to storePath (when not empty), then clears "Key".
// A held descriptor is written at its offset and then closed (above 2); a
// descriptor path that names no held one is refused.  A regular file (new:
// mode 0600) is replaced whole, never partly written; a FIFO (that someone
// reads) or character device of the user's or root's is written to as it
// is; a symlink, another user's file or anything else is refused.  A
// failure is said on stderr.
void StoreResult(const char* storePath);
// The result text StoreResult writes, from g_exitResult / g_exitSuccessText.
const char* ResultText();
// "script install" / "script repair" / "script uninstall", exactly.  Returns 0.
int32_t RunTestOption(const char* value);
