// What a descriptor that somebody else has sent refers to. Nothing here reads from it, nor waits
// for a file system.
#ifndef TOOL_DESCRIPTOR_KIND_H
#define TOOL_DESCRIPTOR_KIND_H

#include <cstdint>
#include <optional>
#include <string>

struct DescriptorKind {
  // "file", "memfd", "directory", "link", "character device", "block device", "pipe", "socket",
  // "anonymous" (as eventfd and epoll are), or "unknown"
  const char* kind = "unknown";
  const char* access = "unknown";     // "read", "write", "read-write" or "path"
  std::optional<std::uint64_t> size;  // of a file or a memfd
  std::string link;  // how the kernel calls it, a path as a rule; the sender's text
};

DescriptorKind kind_of_descriptor(int fd);

#endif
