// Stands in for libtarn_utils_v4_io.
#ifndef TARN_SUITE_IO_H
#define TARN_SUITE_IO_H

// Lets the descriptor survive exec. 0, or -1 with the errno of fcntl(2).
extern "C" int fd_dont_close_on_exec(int fd);

#endif
