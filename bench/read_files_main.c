/* bench_read_files ROOT: a process that only lists and reads the .sc files of ROOT, the floor
 * that `kova-svc list` is compared with as a whole process. Prints the number of files read. */
#include <stdio.h>

#include "read_tree.h"

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: bench_read_files ROOT\n");
        return 2;
    }
    unsigned long bytes = 0;
    const long files = kova_bench_read_tree(argv[1], &bytes);
    if (files < 0) {
        perror(argv[1]);
        return 1;
    }
    printf("%ld files, %lu bytes\n", files, bytes);
    return 0;
}
