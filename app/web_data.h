// Private, per-run places for what GLib and WebKit would keep under HOME.
// WebKit works out its places from GLib's user directories and binds several
// of them into the web process's sandbox, some read-write: the cache
// directory (GStreamer's registry beside it), the website data directory
// (media keys), font and toolkit settings, and, without XDG_RUNTIME_DIR, the
// runtime directory that GLib then puts in the cache directory, where the
// accessibility bus listens.  A HOME that is missing, empty, relative or a
// file crashes WebKit outright.  With GLib pointed at a private place for
// the whole run, the web process sees nothing of HOME, whatever HOME is.
// (WebKitGTK 2.50; this can go once WebKit's sandbox binds only what the
// web context names and copes with any HOME.)
#pragma once

// Makes the private place (kavori-web-XXXXXX, mode 0700, under
// XDG_RUNTIME_DIR, else TMPDIR, else /tmp) and has GLib report the home,
// cache, data and config directories inside it; without XDG_RUNTIME_DIR,
// GLib's runtime directory falls inside it too.  The environment stays as
// the caller gave it, so processes the host starts see the caller's HOME.
// Must come before anything asks GLib for these directories (before
// gtk_init); the place goes at exit.  It is locked for the run: one that
// an earlier host left (SIGKILL, a crash) goes when the next is made, with
// its web processes' instance directories.  False, after one line on
// stderr, when no place could be made: GLib then follows HOME as usual.
bool PrepareWebDataPlaces();
// Ends WebKit's processes of this host, then removes the private place and
// the instance directories that WebKit's sandbox made in the runtime
// directory for this process's web processes
// (.flatpak/webkit-<pid>-<n>; the shared .flatpak and webkitgtk stay).
// Called at exit; an end that skips the exit handlers (restart) calls it
// itself.
void RemoveWebDataPlaces();
