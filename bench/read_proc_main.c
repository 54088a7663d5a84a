/* bench_read_proc: a process that makes only the reads of /proc that a runtime inventory cannot do
 * without, and nothing with what they return: the four socket tables read to their end, the
 * listing of /proc, every process's descriptor directory and each descriptor's link, and the
 * executable link of every process that holds a socket. The floor that `kova-svc sockets` is
 * compared with as a whole process. Prints what it read. */
#define _GNU_SOURCE
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

/* The bytes of the file, or -1 when it cannot be opened. */
static long read_to_end(const char *path) {
    static char buf[1 << 17];
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    long total = 0;
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0) total += n;
    close(fd);
    return total;
}

int main(void) {
    static const char *const tables[] = {"/proc/net/tcp", "/proc/net/tcp6", "/proc/net/udp", "/proc/net/udp6"};
    long bytes = 0;
    for (size_t i = 0; i < sizeof tables / sizeof tables[0]; ++i) {
        /* Without one of them an inventory fails, and this would be no floor of one. */
        const long n = read_to_end(tables[i]);
        if (n < 0) {
            perror(tables[i]);
            return 1;
        }
        bytes += n;
    }

    DIR *proc = opendir("/proc");
    if (proc == NULL) {
        perror("/proc");
        return 1;
    }
    long links = 0, holders = 0;
    for (const struct dirent *e; (e = readdir(proc)) != NULL;) {
        if (e->d_name[0] < '0' || e->d_name[0] > '9') continue;
        char path[300]; /* "/proc/", a directory entry's name and "/exe" */
        snprintf(path, sizeof path, "/proc/%s/fd", e->d_name);
        const int dir_fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (dir_fd < 0) continue;
        DIR *fds = fdopendir(dir_fd);
        if (fds == NULL) {
            close(dir_fd);
            continue;
        }
        int holds_socket = 0;
        for (const struct dirent *f; (f = readdir(fds)) != NULL;) {
            if (f->d_name[0] == '.') continue;
            char target[64];
            const ssize_t n = readlinkat(dir_fd, f->d_name, target, sizeof target);
            ++links;
            if (n > 7 && memcmp(target, "socket:", 7) == 0) holds_socket = 1;
        }
        closedir(fds);
        if (holds_socket) {
            char exe[1024];
            snprintf(path, sizeof path, "/proc/%s/exe", e->d_name);
            if (readlink(path, exe, sizeof exe) > 0) ++holders;
        }
    }
    closedir(proc);
    printf("%ld bytes of socket tables, %ld descriptor links, %ld processes holding sockets\n", bytes, links, holders);
    return 0;
}
