// Reading and writing a whole buffer on a blocking descriptor, across
// short transfers and EINTR.
#ifndef IPAPP_TOOLS_WHOLE_IO_H
#define IPAPP_TOOLS_WHOLE_IO_H

#include <cstddef>

namespace ipapp::tools {

/// False when the descriptor fails or ends before size bytes are read.
bool ReadAll(int fd, void *data, size_t size);
/// False when the descriptor fails before size bytes are written.
bool WriteAll(int fd, const void *data, size_t size);
/// WriteAll on a socket: a peer that has gone is an answer (false), never a
/// SIGPIPE for the writer.
bool SendAll(int fd, const void *data, size_t size);

}  // namespace ipapp::tools

#endif  // IPAPP_TOOLS_WHOLE_IO_H
