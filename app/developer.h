// Developer mode for dialog authors (KAVORI_DEVELOPER=1, exactly): WebKit's
// developer extras, the page's console on stderr and the reload and
// inspector keys, for this run only; with --automation as well, a WebDriver
// server may drive the dialog.
#pragma once

typedef struct _GtkWidget GtkWidget;

bool DeveloperMode();
// Developer mode and --automation on the command line as received: both come
// from whoever started the host, never from a page.  Without developer mode
// --automation is an unknown argument like any other.
bool AutomationMode();
// WebKit opens a remote inspector on a TCP port, open to every local user,
// whenever WEBKIT_INSPECTOR_SERVER (or ..._HTTP_SERVER) is set.  A dialog
// takes PINs: the variables are dropped unless in automation mode, where
// the WebDriver server sets them.  Before the web context is made.
void DropInspectorServerUnlessAutomated();
// F5 and Ctrl+R reload, Ctrl+Shift+I opens the inspector; in developer mode only.
void ConnectDeveloperKeys(GtkWidget* window);
