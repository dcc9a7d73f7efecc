// WebKit's bubblewrap sandbox for the web processes: a page that takes over
// its web process still cannot read the user's files.  Where bubblewrap
// cannot run (no user namespaces, a missing program), pages run without it
// and the host says so once on stderr: a dialog that does not appear helps
// nobody.
#pragma once

typedef struct _WebKitWebContext WebKitWebContext;

// Starts the trial run of bubblewrap in the background, so that its cost
// (namespaces made and torn down, tens of milliseconds on a busy machine)
// overlaps the toolkit's start instead of delaying the first page.  Call
// once, early; SandboxUsable then waits for this run instead of making one.
void StartSandboxProbe();
// Whether bubblewrap runs here: the programs WebKit uses exist, and a trial
// run in fresh namespaces succeeds.
bool SandboxUsable();
// Turns the sandbox on for the context when usable, with the bridge's
// directory (where the web extension connects) added to it.  Must come
// before the first web process.  True when web processes will be sandboxed.
bool EnableSandbox(WebKitWebContext* context, const char* bridgeDirectory);
