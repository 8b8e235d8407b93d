// Whole files and their texts. Called by everything in this folder; a failed write leaves what got
// written, as on a phone.
#include "simphone/files.h"

#include <charconv>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr char DIGITS[] = "0123456789abcdef";

} // namespace

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

std::string Displayed(const std::string& text) {
    std::string line;
    for (const char c : text) {
        const bool isPrintable = c >= 0x20 && c < 0x7F;
        line += c == '\n' ? "\\n" : isPrintable ? std::string(1, c) : "\\x" + Hex(&c, 1);
    }
    return line;
}

std::string Escaped(const std::string& text) {
    std::string doubled;
    for (const char c : text) {
        doubled.append(c == '\\' ? 2 : 1, c);
    }
    return Displayed(doubled);
}

bool Unescape(const std::string& line, std::string& text) {
    text.clear();
    for (size_t i = 0; i < line.size(); i++) {
        const char next = i + 1 < line.size() ? line[i + 1] : '\0';
        unsigned byte = 0;
        if (line[i] != '\\') {
            text += line[i];
        } else if (next == 'n' || next == '\\') {
            text += next == 'n' ? '\n' : '\\';
            i++;
        } else if (next == 'x' && i + 4 <= line.size() &&
                   std::from_chars(&line[i + 2], &line[i] + 4, byte, 16).ptr == &line[i] + 4) {
            text += static_cast<char>(byte);
            i += 3;
        } else {
            return false;
        }
    }
    return true;
}

std::string Hex(const void* data, size_t size) {
    std::string text;
    for (size_t i = 0; i < size; i++) {
        const auto byte = static_cast<const unsigned char*>(data)[i];
        text += DIGITS[byte >> 4];
        text += DIGITS[byte & 0xF];
    }
    return text;
}
