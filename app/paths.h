// Installation root, window icon and the ready handle through which the
// native libraries are started lazily, once, by the first caller that needs
// the plug-in.
#pragma once

#include <cstdint>

// Non-null once a start-up of the native libraries has returned 0; never reset.
extern void* g_readyHandle;

// HOME/.kvo/bin/kvo, else /usr/bin/kvo, gives HOME/.kvo/lib or /usr/lib.
bool FindInstalledLibraryDirectory(char* out, uint32_t size);
// Beside the executable, in -root, HOME/.kvo, /etc/kvo: first existing kvo.ico.
bool FindWindowIcon(char* out, uint32_t size);
// Starts the plug-in library (selection 2) while the handle is null.
void* GetReadyHandle();
// Sets g_readyHandle after a start-up that returned 0.
void SetReadyHandle();
