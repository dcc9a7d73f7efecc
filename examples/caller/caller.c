/* A caller of the dialog host, as a middleware would start it from inside
 * a program that needs a PIN or a choice: the dialog's result comes back
 * through a pipe (no file on disk), the key goes on the command line (so it
 * must be no secret: every local user can read it), and a dialog that takes
 * longer than the caller will wait is ended with SIGTERM.
 *
 *   kavori-caller [-t seconds] [-k key] <kavori-host> <page> [host options]
 *
 * The result is printed on stdout exactly as the page gave it (no line end)
 * and the exit status says what happened: 0 a result, 1 the dialog ended
 * without one, 2 it took longer than the timeout (default 300 s) and was
 * ended, 3 the host did not start or failed, 64 a usage error.  The host's
 * own output goes to stderr. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

extern char** environ;

enum { kResult = 0, kNoResult = 1, kTimedOut = 2, kHostFailed = 3, kUsage = 64 };
enum { kResultFd = 3, kMaxResult = 16 << 20, kGraceMs = 5000 };

static long long NowMs(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

/* The host, with the pipe's write end as its descriptor 3, its stdout on
 * our stderr (our stdout carries the result alone), no stdin, no other
 * descriptor of ours, and the signals as a fresh process has them: a caller
 * inside a larger program may block or ignore some. */
static pid_t StartHost(char** argv, int resultFd) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, resultFd, kResultFd);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, 2, 1);
#if defined(__GLIBC__) && (__GLIBC__ > 2 || __GLIBC_MINOR__ >= 34)
    posix_spawn_file_actions_addclosefrom_np(&actions, kResultFd + 1);
#endif
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    pid_t pid = -1;
    int failed = posix_spawn(&pid, argv[0], &actions, &attributes, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (failed) fprintf(stderr, "kavori-caller: cannot start %s: %s\n", argv[0], strerror(failed));
    return failed ? -1 : pid;
}

/* A started dialog: the pipe's read end, what came through it, and the
 * host's end. */
struct Dialog {
    pid_t pid;
    int fd, open, ended, status, lost; /* lost: more than kMaxResult, or no memory */
    char* text;
    size_t length;
};

/* Reads the pipe until it has ended and the host has ended, or until the
 * deadline; whether both happened. */
static int Collect(struct Dialog* d, long long deadline) {
    while (d->open || !d->ended) {
        if (!d->ended && waitpid(d->pid, &d->status, WNOHANG) == d->pid) d->ended = 1;
        long long left = deadline - NowMs();
        if (left <= 0) return 0;
        struct pollfd readable = {d->fd, POLLIN, 0};
        /* Once the pipe has ended, only the host's end is awaited. */
        if (poll(&readable, d->open ? 1 : 0, left < 50 ? (int)left : 50) <= 0 || !d->open) continue;
        char buffer[4096];
        ssize_t n = read(d->fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        char* grown =
            n > 0 && d->length + (size_t)n <= kMaxResult ? realloc(d->text, d->length + (size_t)n) : NULL;
        if (grown) {
            memcpy(grown + d->length, buffer, (size_t)n);
            d->text = grown;
            d->length += (size_t)n;
        }
        d->lost |= n > 0 && !grown;
        d->open = n > 0;
    }
    return 1;
}

int main(int argc, char** argv) {
    int timeout = 300, option;
    const char* key = NULL;
    while ((option = getopt(argc, argv, "+t:k:")) != -1) {
        if (option == 't' && atoi(optarg) > 0)
            timeout = atoi(optarg);
        else if (option == 'k')
            key = optarg;
        else
            return kUsage;
    }
    if (argc - optind < 2) {
        fprintf(stderr, "usage: kavori-caller [-t seconds] [-k key] <kavori-host> <page> [host options]\n");
        return kUsage;
    }
    /* The host's command line: its own path, the page, the key, the result
     * descriptor, then whatever else was given. */
    char** hostArgv = calloc((size_t)(argc - optind) + 7, sizeof *hostArgv);
    int n = 0;
    hostArgv[n++] = argv[optind];
    hostArgv[n++] = "-url";
    hostArgv[n++] = argv[optind + 1];
    if (key) {
        hostArgv[n++] = "-key";
        hostArgv[n++] = (char*)key;
    }
    hostArgv[n++] = "-store";
    hostArgv[n++] = "/dev/fd/3";
    for (int i = optind + 2; i < argc; ++i) hostArgv[n++] = argv[i];

    /* Close-on-exec here: only the dialog gets the write end, as its 3. */
    int result[2];
    if (pipe2(result, O_CLOEXEC) != 0) return kHostFailed;
    pid_t pid = StartHost(hostArgv, result[1]);
    close(result[1]); /* else the pipe never ends */
    free(hostArgv);
    if (pid < 0) return kHostFailed;

    struct Dialog d = {pid, result[0], 1, 0, 0, 0, NULL, 0};
    int code;
    if (Collect(&d, NowMs() + timeout * 1000LL)) {
        if (!WIFEXITED(d.status) || WEXITSTATUS(d.status) != 0) {
            fprintf(stderr,
                    "kavori-caller: the dialog failed (%s %d)\n",
                    WIFEXITED(d.status) ? "exit status" : "signal",
                    WIFEXITED(d.status) ? WEXITSTATUS(d.status) : WTERMSIG(d.status));
            code = kHostFailed;
        } else if (d.lost) {
            fprintf(stderr, "kavori-caller: the result was too long to keep\n");
            code = kHostFailed;
        } else if (d.length == 0) {
            fprintf(stderr, "kavori-caller: the dialog ended without a result\n");
            code = kNoResult;
        } else {
            code = fwrite(d.text, 1, d.length, stdout) == d.length && fflush(stdout) == 0 ? kResult
                                                                                          : kHostFailed;
        }
    } else {
        /* SIGTERM ends the dialog at any moment, without a result; a host
         * that does not end after it is killed.  (After a page's restart
         * the dialog is a new process this caller did not start.) */
        fprintf(stderr, "kavori-caller: no result after %d s: the dialog is ended\n", timeout);
        if (!d.ended) kill(pid, SIGTERM);
        if (!Collect(&d, NowMs() + kGraceMs) && !d.ended) {
            kill(pid, SIGKILL);
            waitpid(pid, NULL, 0);
        }
        code = kTimedOut;
    }
    free(d.text);
    close(result[0]);
    return code;
}
