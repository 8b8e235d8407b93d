// Reads and writes whole files. Called by everything in this folder; a failed write leaves what got
// written, as on a phone.
#include "simphone/files.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

bool ReadWholeFile(const std::string& path, std::string& content) {
    content.clear();
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    char piece[65536];
    ssize_t count = 0;
    while ((count = read(fd, piece, sizeof(piece))) > 0) {
        content.append(piece, static_cast<size_t>(count));
    }
    if (count < 0) {
        content.clear();
    }
    close(fd);
    return count == 0;
}

std::string WholeFile(const std::string& path) {
    std::string content;
    if (!ReadWholeFile(path, content)) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    return content;
}

bool WriteWholeFile(const std::string& path, const void* data, size_t size) {
    FILE* file = fopen(path.c_str(), "we");
    if (file == nullptr) {
        return false;
    }
    const bool isWritten = fwrite(data, 1, size, file) == size;
    return fclose(file) == 0 && isWritten;
}
