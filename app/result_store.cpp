#include "app/result_store.h"

#include <cstdio>
#include <cstring>

#include "app/app_commands.h"
#include "native/plugin_session.h"
#include "app/launch.h"

namespace {

bool IsEmpty(const char* text) { return text == nullptr || text[0] == '\0'; }

}  // namespace

const char* ResultText() {
    const char* result = IsEmpty(g_exitResult) ? "OK" : g_exitResult;
    // Only the exact success words give way to the page's success text.
    if (!IsEmpty(g_exitSuccessText) && (strcmp(result, "OK") == 0 || strcmp(result, "CKR_OK") == 0)) {
        result = g_exitSuccessText;
    }
    return result;
}

void StoreResult(const char* storePath) {
    if (!IsEmpty(storePath)) {
        const char* text = ResultText();
        FILE* file = fopen(storePath, "wb");
        if (file != nullptr) {
            // The bytes alone: no terminator, no line end.
            fwrite(text, 1, strlen(text), file);
            fflush(file);
            fclose(file);
        }
    }
    // The key is not left behind in the plug-in, whether or not a file was asked for.
    ClearKey();
}

int32_t RunTestOption(const char* value) {
    if (value == nullptr) return 0;
    // install runs from the working directory only; the others look in the
    // per-user and system directories first.
    if (strcmp(value, "script install") == 0) {
        RunMaintenanceScript("install", false);
    } else if (strcmp(value, "script repair") == 0) {
        RunMaintenanceScript("repair", true);
    } else if (strcmp(value, "script uninstall") == 0) {
        RunMaintenanceScript("uninstall", true);
    }
    return 0;
}
