// The result file after the main loop, and the maintenance-script mode
// (-test).
#pragma once

#include <cstdint>

// Writes the page's result to storePath (when not empty), then clears "Key".
void StoreResult(const char* storePath);
// The result text StoreResult writes, from g_exitResult / g_exitSuccessText.
const char* ResultText();
// "script install" / "script repair" / "script uninstall", exactly.  Returns 0.
int32_t RunTestOption(const char* value);
