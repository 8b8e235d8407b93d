// Whole files, for the phone's library and for the workstation side alike.
#pragma once

#include <cstddef>
#include <string>

// The whole content; false if the file cannot be read (errno tells why; the content is empty then).
[[nodiscard]] bool ReadWholeFile(const std::string& path, std::string& content);
// The whole content; throws std::system_error, with the path, if the file cannot be read.
std::string WholeFile(const std::string& path);

// Creates or replaces a file; false if it cannot be written whole (errno tells why).
[[nodiscard]] bool WriteWholeFile(const std::string& path, const void* data, size_t size);
