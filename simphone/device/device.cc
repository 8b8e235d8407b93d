// What the devices of both kinds do to their files. A file that cannot be written is a failure of
// this machine.
#include "simphone/device/device.h"

#include "simphone/files.h"

#include <cerrno>
#include <cstring>

int Keep(const std::string& file, const void* data, size_t size, Reply& reply) {
    if (WriteWholeFile(file, data, size)) {
        return 0;
    }
    reply.failure = file + ": " + strerror(errno);
    return EIO;
}
