/* The floor every catalogue is measured against: list the two services.d directories of a root
 * and open and read every file in them, doing nothing with the bytes. Plain C, shared by the
 * in-process benchmarks and by the bench_read_files program (the same work as a whole process). */
#ifndef KOVA_BENCH_READ_TREE_H
#define KOVA_BENCH_READ_TREE_H

#ifdef __cplusplus
extern "C" {
#endif

/* Reads every entry of ROOT/usr/kova/etc/services.d and ROOT/usr/local/etc/services.d; the number
 * of files read, or -1 when a directory cannot be listed or a file cannot be read. */
long kova_bench_read_tree(const char *root, unsigned long *bytes);

#ifdef __cplusplus
}
#endif

#endif
