// Reads and writes whole files. Called by everything in this folder; a failed write leaves what got
// written, as on a phone.
#include "simphone/files.h"

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

std::system_error FailureOf(const std::string& path, int error) {
    return {error, std::generic_category(), path};
}

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
        throw FailureOf(path);
    }
    return content;
}

int OpenHigh(const std::string& path, int flags) {
    const int fd = open(path.c_str(), flags | O_CLOEXEC, 0644);
    if (fd < 0) {
        throw FailureOf(path);
    }
    const int high = fcntl(fd, F_DUPFD_CLOEXEC, 800);
    if (high < 0) {
        return fd;
    }
    close(fd);
    return high;
}

void WriteWholeFile(const std::string& path, std::string_view content) {
    FILE* file = fopen(path.c_str(), "we");
    if (file == nullptr) {
        throw FailureOf(path);
    }
    const bool isWritten = fwrite(content.data(), 1, content.size(), file) == content.size();
    if (fclose(file) != 0 || !isWritten) {
        throw FailureOf(path);
    }
}
