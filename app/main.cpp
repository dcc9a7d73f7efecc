// The host's entry point: save the command line, let the configuration
// redirect it, build one window around one web view, show the start page,
// hand the key over, run the loop, store the result.  Exit status 0 on
// every path of its own.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtk/gtk.h>
#include <sys/resource.h>
#include <unistd.h>
#include <webkit2/webkit2.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "app/app_commands.h"
#include "app/developer.h"
#include "app/geometry.h"
#include "app/host_state.h"
#include "app/launch.h"
#include "app/options.h"
#include "app/paths.h"
#include "app/result_store.h"
#include "app/sandbox.h"
#include "app/signals.h"
#include "app/start_url.h"
#include "app/web_data.h"
#include "app/web_settings.h"
#include "app/web_view.h"
#include "app/window.h"
#include "bridge/bridge_server.h"
#include "native/plugin_session.h"

namespace {

constexpr uint32_t kPathSize = 256;

#if defined(__SANITIZE_ADDRESS__)
// Sanitizer builds (KAVORI_SANITIZE) only.  The web extension is built with
// ASan but WebKit's web process is not, and ASan's runtime must come first
// in a process, so it is preloaded into the processes that WebKit starts.
// They get plain options whatever the host was given (ours are read by now):
// the slow unwinder of a leak check deadlocks WebKit's threads.
void PreloadSanitizerRuntime() {
    Dl_info info;
    void* symbol = dlsym(RTLD_DEFAULT, "__asan_init");
    if (!symbol || !dladdr(symbol, &info) || !info.dli_fname || !strstr(info.dli_fname, "libasan")) return;
    setenv("LD_PRELOAD", info.dli_fname, 0);
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
}
#else
void PreloadSanitizerRuntime() {}
#endif

// PINs pass through this process and the web processes it starts: a core
// file would put them on disk, so none is written.
void DisableCoreDumps() {
    struct rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
}

// A caller may start the host with standard descriptors closed.  The next
// files opened would take their numbers: GLib's warnings would go into
// them, and every process started from here on (WebKit's too) would get
// them as its input and output.  Those numbers get /dev/null instead, once
// a -store descriptor has been taken, so a closed one is never taken.
void OpenClosedStandardDescriptors() {
    for (int fd = 0; fd <= 2; ++fd) {
        if (fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
        int null = open("/dev/null", O_RDWR);
        if (null >= 0 && null != fd) dup2(null, fd), close(null);
    }
}

// Without a session bus GLib and the accessibility bridge autolaunch one
// (dbus-launch, where installed) for every run, and those daemons outlive
// the dialog, carrying its environment.  A desktop session always has a
// bus, and where none exists no screen reader can be listening either, so
// the host then asks for none: it and its web processes get an address
// that no client can use, and no daemon is started.
void AvoidBusAutolaunch() {
    if (getenv("DBUS_SESSION_BUS_ADDRESS")) return;
    const char* runtime = getenv("XDG_RUNTIME_DIR");
    if (runtime) {
        gchar* bus = g_build_filename(runtime, "bus", nullptr);
        bool exists = g_file_test(bus, G_FILE_TEST_EXISTS);
        g_free(bus);
        if (exists) return;
    }
    setenv("DBUS_SESSION_BUS_ADDRESS", "disabled:", 1);
}

}  // namespace

#if defined(__SANITIZE_ADDRESS__)
// GTK, fontconfig and WebKit keep caches to the end of the process, so a
// leak check of the host is asked for explicitly (ASAN_OPTIONS=detect_leaks=1
// with tests/lsan.supp), not made at every exit.
extern "C" const char* __asan_default_options() { return "detect_leaks=0"; }
#endif

int main(int argc, char** argv) {
    // A -store descriptor is taken while every open one is still the caller's.
    const char* heldStore = nullptr;
    FindOptionValue(argc, argv, "-store", &heldStore);
    HoldResultDescriptor(heldStore);
    OpenClosedStandardDescriptors();
    // gdk_threads_enter/leave are no-ops in GTK 3 and are left out.
    WatchTerminationSignals();
    DisableCoreDumps();
    PreloadSanitizerRuntime();
    AvoidBusAutolaunch();
    SaveCommandLine(argc, argv);
    TakeRestartHistory();
    DropInspectorServerUnlessAutomated();
    char lazyRoot[kPathSize];
    LazyStartRoot(lazyRoot, sizeof lazyRoot);
    const char* lazyConfig = nullptr;
    FindOptionValue(g_argc, g_argv, "-config", &lazyConfig);
    ConfigurePluginSession(lazyRoot, lazyConfig);

    int32_t count = argc;
    char** redirected = nullptr;
    if (!HasOption(count, argv, "-url")) {
        redirected = RedirectCommandLine(argv, &count);
    }
    // gtk_init takes its own options out of the vector it is given; give it
    // a pointer array of ours so the redirected vector stays whole to free.
    char** inUse = new char*[static_cast<size_t>(count) + 1];
    for (int32_t i = 0; i < count; ++i) inUse[i] = redirected ? redirected[i] : argv[i];
    inUse[count] = nullptr;
    char** vector = inUse;
    int gtkCount = count;
    // Only a page to show needs WebKit, and with it the sandbox's trial run
    // (it runs while the toolkit starts) and the private places, which GLib
    // must know before the toolkit asks it for any.
    if (HasOption(count, inUse, "-url") && !HasOption(count, inUse, "-test")) {
        StartSandboxProbe();
        PrepareWebDataPlaces();
    }

    ChooseDisplayBackend();
    if (!gtk_init_check(&gtkCount, &vector)) {
        // GTK would end the process with 1 and a bare warning; say it plainly.
        fprintf(stderr,
                "kavori-host: no display can be opened (DISPLAY, WAYLAND_DISPLAY): no dialog shown\n");
        return 1;
    }
    count = gtkCount;

    const char* testValue = nullptr;
    if (TerminatedBySignal()) {
        // Ended while starting: nothing is run, and no WebKit process is
        // started only to be killed half-way through its own start.
    } else if (FindOptionValue(count, vector, "-test", &testValue)) {
        RunTestOption(testValue);
    } else if (!FindOptionValue(count, vector, "-url", &g_startUrl)) {
        LaunchAdminProgram();
    } else {
        // Only a page to show needs WebKit's processes, its sandbox and the bridge.
        PrepareWebContext();
        GtkWidget* box = BuildWebViewBox();
        const char* userAgent = nullptr;
        FindOptionValue(count, vector, "-useragent", &userAgent);
        char iconBuffer[kPathSize] = {};
        const char* iconPath = nullptr;
        if (!FindOptionValue(count, vector, "-icon", &iconPath) &&
            FindWindowIcon(iconBuffer, sizeof iconBuffer)) {
            iconPath = iconBuffer;
        }
        const char* title = nullptr;
        if (!FindOptionValue(count, vector, "-title", &title)) title = "Kavori";
        uint32_t wait = 3000;
        FindOptionNumber(count, vector, "-wait", &wait);
        int32_t screenWidth = 0, screenHeight = 0;
        GetScreenSize(&screenWidth, &screenHeight);
        WindowGeometry geometry = ComputeWindowGeometry(count, vector, screenWidth, screenHeight);
        bool resizing = HasOption(count, vector, "-resizing");
        bool keepAbove = HasOption(count, vector, "-system");
        char directoryBuffer[kPathSize] = {};
        const char* root = nullptr;
        if (!FindOptionValue(count, vector, "-root", &root) &&
            FindInstalledLibraryDirectory(directoryBuffer, sizeof directoryBuffer)) {
            root = directoryBuffer;
        }
        const char* configPath = nullptr;
        FindOptionValue(count, vector, "-config", &configPath);
        const char* key = nullptr;
        FindOptionValue(count, vector, "-key", &key);

        g_startUrl = FileUrlForLocalPath(ResolveStartUrl(g_startUrl));
        CreateMainWindow(iconPath, title, geometry);
        ApplyWebSettings(userAgent);
        gtk_container_add(GTK_CONTAINER(g_mainWindow), box);
        if (!TerminatedBySignal()) webkit_web_view_load_uri(WEBKIT_WEB_VIEW(g_webView), g_startUrl);
        gtk_widget_grab_focus(g_webView);
        SleepUnlessTerminated(wait);

        if (!TerminatedBySignal()) {
            ShowMainWindow(geometry, resizing, keepAbove);
            HandOverKey(root, configPath, key);
            gtk_main();
        }

        // A dialog ended by a signal has no result to report.
        const char* storePath = nullptr;
        if (!TerminatedBySignal() && FindOptionValue(count, vector, "-store", &storePath)) {
            StoreResult(storePath);
        }
        ReleaseExitTexts();
    }

    BridgeServerStop();
    if (redirected) FreeArgumentVector(redirected);
    delete[] inUse;
    return 0;
}
