// Whole files, for the phone's library and for the workstation side alike.
#pragma once

#include <cerrno>
#include <string>
#include <string_view>
#include <system_error>

// To throw: why a call at this path has failed.
std::system_error FailureOf(const std::string& path, int error = errno);

// The whole content; false if the file cannot be read (errno tells why; the content is empty then).
[[nodiscard]] bool ReadWholeFile(const std::string& path, std::string& content);
// The whole content; throws std::system_error, with the path, if the file cannot be read.
std::string WholeFile(const std::string& path);

// Opens a file with a high number, where there may be one: so the tool meets the numbers that it
// would meet on a phone. Throws std::system_error, with the path.
int OpenHigh(const std::string& path, int flags);

// Creates or replaces a file; throws std::system_error, with the path, if it cannot be written
// whole.
void WriteWholeFile(const std::string& path, std::string_view content);
