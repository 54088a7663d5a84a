// Running a program without a shell: posix_spawn with standard input from /dev/null, clean
// signal state, no inherited descriptors beyond the standard three, then wait for it.
// Header-only so that every platform library that runs programs shares it.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>

namespace kova::platform {

struct RunResult {
    enum Kind { kNotStarted, kExited, kSignaled } kind = kNotStarted;
    int value = 0;  // exit status, signal number or errno of the failed start
};

// Runs `path` with `argv` (argv[0] included, null-terminated) and `envp`, and waits for it.
inline RunResult run_program(const char *path, char *const argv[], char *const envp[]) noexcept {
    RunResult result;
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attr;
    if (posix_spawn_file_actions_init(&actions) != 0) {
        result.value = ENOMEM;
        return result;
    }
    if (posix_spawnattr_init(&attr) != 0) {
        posix_spawn_file_actions_destroy(&actions);
        result.value = ENOMEM;
        return result;
    }
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    int rc = posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
    if (rc == 0) rc = posix_spawn_file_actions_addclosefrom_np(&actions, 3);
#endif
    if (rc == 0) rc = posix_spawnattr_setsigmask(&attr, &none);
    if (rc == 0) rc = posix_spawnattr_setsigdefault(&attr, &all);
    if (rc == 0) rc = posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    pid_t pid = -1;
    if (rc == 0) {
        rc = std::strchr(path, '/') != nullptr ? posix_spawn(&pid, path, &actions, &attr, argv, envp)
                                               : posix_spawnp(&pid, path, &actions, &attr, argv, envp);
    }
    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        result.value = rc;
        return result;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            result.value = errno;
            return result;
        }
    }
    if (WIFEXITED(status)) {
        result.kind = RunResult::kExited;
        result.value = WEXITSTATUS(status);
    } else {
        result.kind = RunResult::kSignaled;
        result.value = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }
    return result;
}

}  // namespace kova::platform
