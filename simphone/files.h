// Whole files and their texts, for the phone's library and for the workstation side alike.
#pragma once

#include <cstddef>
#include <string>

// Leaves a text for the user; false, which the caller returns.
[[nodiscard]] bool Failed(std::string& error, const std::string& text);

// The whole content; false if the file cannot be read (errno tells why).
[[nodiscard]] bool ReadWholeFile(const std::string& path, std::string& content);

// Creates or replaces a file; false if it cannot be written whole (errno tells why).
[[nodiscard]] bool WriteWholeFile(const std::string& path, const void* data, size_t size);

// One line of printable characters: line feeds become \n, backslashes \\, every other byte \xHH.
std::string Escaped(const std::string& text);
// The same for a text with such forms in it already: its backslashes stay.
std::string Displayed(const std::string& text);
// The bytes of a text with such forms; false if a backslash begins none of them.
[[nodiscard]] bool Unescape(const std::string& line, std::string& text);

// The same as one word without a blank or quotation mark, which \xHH stand for; an empty text is
// "".
std::string Word(const std::string& text);

// Two lower-case digits a byte.
std::string Hex(const void* data, size_t size);

// What printf would print, at most 4095 bytes of it.
std::string Text(const char* format, ...) __attribute__((format(printf, 1, 2)));
