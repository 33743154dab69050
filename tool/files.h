// Files and folders that the command line names.
#ifndef TOOL_FILES_H
#define TOOL_FILES_H

#include <cstddef>
#include <string>
#include <string_view>

#include "tool/handles.h"

// The path of a socket, but of no file.
bool is_abstract(const std::string& path);
// Whether both lead to the same one, which exists.
bool same_socket(const std::string& path, const std::string& other);

CommDescriptor open_file(const std::string& path, int flags);
// The whole of a file, of standard input for "-". A longer one than `max` bytes is a failure.
std::string read_file(const std::string& path, std::size_t max);

// Creates the folder unless it is there. It must be empty: what is saved replaces nothing.
void make_empty_folder(const std::string& path);
CommDescriptor create_file(const std::string& folder, const std::string& name);
void write_all(int fd, std::string_view bytes, const std::string& what);
// What was printed so far has been written, or it is a failure.
void flush_standard_output();

#endif
