// Reads and writes whole files. Called by everything in this folder; a failed write leaves what got
// written, as on a phone.
#include "simphone/files.h"

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

bool ReadWholeFile(const std::string& path, std::string& content) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    content.clear();
    char piece[65536];
    ssize_t count = 0;
    while ((count = read(fd, piece, sizeof(piece))) > 0) {
        content.append(piece, static_cast<size_t>(count));
    }
    close(fd);
    return count == 0;
}

bool WriteWholeFile(const std::string& path, const void* data, size_t size) {
    FILE* file = fopen(path.c_str(), "we");
    if (file == nullptr) {
        return false;
    }
    const bool isWritten = fwrite(data, 1, size, file) == size;
    return fclose(file) == 0 && isWritten;
}
