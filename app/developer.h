// Developer mode for dialog authors (KAVORI_DEVELOPER=1, exactly): WebKit's
// developer extras, the page's console on stderr and the reload and
// inspector keys, for this run only.
#pragma once

typedef struct _GtkWidget GtkWidget;

bool DeveloperMode();
// F5 and Ctrl+R reload, Ctrl+Shift+I opens the inspector; in developer mode only.
void ConnectDeveloperKeys(GtkWidget* window);
