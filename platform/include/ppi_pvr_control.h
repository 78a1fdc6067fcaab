/* ppi_pvr_control.h - the platform's recording-file services. */
#ifndef PLEXA_PLATFORM_PPI_PVR_CONTROL_H
#define PLEXA_PLATFORM_PPI_PVR_CONTROL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
/* Whoever defines these, in a library or in a program, is seen by all others. */
#pragma GCC visibility push(default)

/* A byte range to take out of a file. 80 bytes. */
typedef struct pvr_truncate_range_s {
  int64_t start_offset; /*  0  first byte to remove */
  int64_t end_offset;   /*  8  first byte behind the range */
  char file_name[64];   /* 16  the path, cut at 63 characters; for messages only */
} pvr_truncate_range_s;

/**
 * Remove a byte range from a file in place: what lay behind the range follows what lay before it,
 * and the file is shorter by the range. A range that reaches or passes the end cuts the file at the
 * range's start.
 *
 * @param fd       Descriptor open for reading and writing; stays the caller's. Its position is
 *                 neither used nor changed.
 * @param request  The range; borrowed.
 * @return 0 on success, a negative value with errno set on failure.
 *
 * Blocks on storage. Nobody else may write to or resize the file meanwhile. Safe from several
 * threads on different files.
 */
int ppi_pvr_control_file_truncate_range(int fd, const pvr_truncate_range_s *request);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
