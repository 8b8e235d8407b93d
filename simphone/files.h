// Whole files and their texts, for the phone's library and for the workstation side alike.
#pragma once

#include <cstddef>
#include <string>

// The whole content; false if the file cannot be read (errno tells why).
[[nodiscard]] bool ReadWholeFile(const std::string& path, std::string& content);

// Creates or replaces a file; false if it cannot be written whole (errno tells why).
[[nodiscard]] bool WriteWholeFile(const std::string& path, const void* data, size_t size);

// One line of printable characters: a backslash and every other byte become \n, \\ or \xHH.
std::string Escaped(const std::string& text);
// The same for a text with such forms in it already: its backslashes stay.
std::string Displayed(const std::string& text);
std::string Unescaped(const std::string& line);

// Two lower-case digits a byte.
std::string Hex(const void* data, size_t size);
