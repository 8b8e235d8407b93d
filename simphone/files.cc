// Whole files and their texts. Called by everything in this folder; a failed write leaves what got
// written, as on a phone.
#include "files.h"

#include <fcntl.h>
#include <unistd.h>

static const char kDigits[] = "0123456789abcdef";

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
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    const char* rest = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t count = write(fd, rest, size);
        if (count <= 0) {
            close(fd);
            return false;
        }
        rest += count;
        size -= static_cast<size_t>(count);
    }
    return close(fd) == 0;
}

std::string Escaped(const std::string& text) {
    std::string line;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\n') {
            line += "\\n";
        } else if (c == '\\') {
            line += "\\\\";
        } else if (byte < 0x20 || byte > 0x7E) {
            line += "\\x" + Hex(&c, 1);
        } else {
            line += c;
        }
    }
    return line;
}

std::string Displayed(const std::string& text) {
    std::string line;
    for (const char c : text) {
        const bool isPrintable = c >= 0x20 && c < 0x7F;
        line += isPrintable ? std::string(1, c) : "\\x" + Hex(&c, 1);
    }
    return line;
}

std::string Unescaped(const std::string& line) {
    std::string text;
    for (size_t i = 0; i < line.size(); i++) {
        if (line[i] != '\\' || i + 1 == line.size()) {
            text += line[i];
        } else if (line[++i] == 'x') {
            text += static_cast<char>(std::stoi(line.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            text += line[i] == 'n' ? '\n' : line[i];
        }
    }
    return text;
}

std::string Hex(const void* data, size_t size) {
    std::string text;
    for (size_t i = 0; i < size; i++) {
        const auto byte = static_cast<const unsigned char*>(data)[i];
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0xF];
    }
    return text;
}
