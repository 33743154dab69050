// Standard error, where a daemon's log may have lost its reader or met a limit.
#ifndef TARN_LIB_STANDARD_ERROR_H
#define TARN_LIB_STANDARD_ERROR_H

#include <cstddef>

// Each hands its text to the stream in one call, which an unbuffered stream writes in one piece.
// Neither SIGPIPE nor SIGXFSZ comes of it: what cannot be written is lost. They leave errno alone.

void write_to_standard_error(const char* text, std::size_t length) noexcept;
void write_to_standard_error(const char* text) noexcept;

#endif
