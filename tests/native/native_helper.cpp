// The start-up in a process of its own, to watch what the wrapper globals do at exit.
//   kvo_native_helper start <root> <selection>   exit status: the start-up's result
//   kvo_native_helper bare                       both wrappers from bare library names
#include <cstdlib>
#include <cstring>

#include "native/library_manager.h"
#include "native/wrapper_plugin.h"
#include "native/wrapper_pkcs11.h"

int main(int argc, char** argv) {
    if (argc == 4 && strcmp(argv[1], "start") == 0) {
        return StartLibraries(nullptr, argv[2], "/etc/kvo.conf", nullptr, 0, strtoul(argv[3], nullptr, 0));
    }
    if (argc == 2 && strcmp(argv[1], "bare") == 0) {  // nothing loaded: the loader's search path
        bool moduleUp = g_wrapperPKCS11.Initialize(nullptr) == CKR_OK;
        return moduleUp && g_wrapperPlugin.Initialize(nullptr, nullptr, nullptr, nullptr) ? 0 : 1;
    }
    return 2;
}
