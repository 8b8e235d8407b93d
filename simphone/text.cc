// Makes texts printable and reads them back. Called by everything that prints or keeps a text.
#include "simphone/text.h"

#include <charconv>
#include <cstdarg>
#include <cstdio>

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

std::string Quoted(const std::string& text) {
    return '"' + Escaped(text) + '"';
}

std::string Word(const std::string& text) {
    std::string word;
    for (const char c : Escaped(text)) {
        word += c == ' ' || c == '"' ? "\\x" + Hex(&c, 1) : std::string(1, c);
    }
    return word.empty() ? "\"\"" : word;
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
        text += Text("%02x", static_cast<const unsigned char*>(data)[i]);
    }
    return text;
}

std::string Text(const char* format, ...) {
    char text[4096];
    va_list more;
    va_start(more, format);
    vsnprintf(text, sizeof(text), format, more);
    va_end(more);
    return text;
}
