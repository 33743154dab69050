// Standard error, where a daemon's log may have lost its reader or met a limit.
#ifndef TARN_LIB_STANDARD_ERROR_H
#define TARN_LIB_STANDARD_ERROR_H

#include <cstdarg>
#include <cstddef>

// Each hands its text to the stream in one call, which an unbuffered stream writes in one piece.
// Neither SIGPIPE nor SIGXFSZ comes of it: what cannot be written is lost. They leave errno alone.

void write_to_standard_error(const char* text, std::size_t length) noexcept;
void write_to_standard_error(const char* text) noexcept;
// `prefix`, the formatted message and a newline. Without memory for a long line it is cut.
void write_line_to_standard_error(const char* prefix, const char* format, va_list args) noexcept
    __attribute__((format(printf, 2, 0)));

#endif
