#include "app/sandbox.h"

#include <sys/wait.h>
#include <unistd.h>
#include <webkit2/webkit2.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "native/system_places.h"

namespace {

// The trial run started by StartSandboxProbe, 0 when none is under way.
GPid g_probe = 0;

bool SpawnProbe(GPid* pid) {
    // The namespaces WebKit asks for; a kernel or container that refuses
    // them makes every web process fail to start.
    const char* argv[] = {SystemPath(PLACE_BWRAP),
                          "--unshare-all",
                          "--die-with-parent",
                          "--ro-bind",
                          "/",
                          "/",
                          "/bin/true",
                          nullptr};
    return g_spawn_async(
        nullptr,
        const_cast<gchar**>(argv),
        nullptr,
        GSpawnFlags(G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_STDOUT_TO_DEV_NULL | G_SPAWN_STDERR_TO_DEV_NULL),
        nullptr,
        nullptr,
        pid,
        nullptr);
}

bool ProbeSucceeded(GPid pid) {
    int status = 0;
    pid_t done;
    do {
        done = waitpid(pid, &status, 0);
    } while (done < 0 && errno == EINTR);
    return done == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

void StartSandboxProbe() {
    if (g_probe == 0 && !SpawnProbe(&g_probe)) g_probe = 0;
}

bool SandboxUsable() {
    GPid pid = g_probe;
    g_probe = 0;
    // WebKit starts the D-Bus proxy whenever a session bus address is set,
    // "disabled:" included (which the host sets where there is no bus), and
    // ends the host when the proxy does not start.
    if (access(SystemPath(PLACE_BWRAP), X_OK) != 0 || access(SystemPath(PLACE_DBUS_PROXY), X_OK) != 0) {
        if (pid != 0) ProbeSucceeded(pid);  // reaped, not used
        return false;
    }
    return (pid != 0 || SpawnProbe(&pid)) && ProbeSucceeded(pid);
}

bool EnableSandbox(WebKitWebContext* context, const char* bridgeDirectory) {
    if (!SandboxUsable()) {
        fprintf(stderr,
                "kavori-host: web pages run without WebKit's sandbox: bubblewrap (%s) cannot run here\n",
                SystemPath(PLACE_BWRAP));
        return false;
    }
    webkit_web_context_set_sandbox_enabled(context, TRUE);
    // Read-only is enough: connecting to a socket needs no write access to
    // the file system it is on.
    if (bridgeDirectory && bridgeDirectory[0])
        webkit_web_context_add_path_to_sandbox(context, bridgeDirectory, TRUE);
    // WebKit's own switch for debugging leaves the processes outside.
    return !getenv("WEBKIT_DISABLE_SANDBOX_THIS_IS_DANGEROUS");
}
