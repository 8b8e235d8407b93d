// Writes results, each whole or not at all. Only regular files are replaced.
#pragma once

#include <functional>
#include <string>
#include <string_view>

// Stop if WriteOutput would not write there.
void CheckOutput(const std::string& path);

// Writes bytes to a new file, which replaces a regular file at path once it is whole and synced.
// Stop if path is a link, a device or anything else that is not a regular file, or if it cannot be
// written.
void WriteOutput(const std::string& path, std::string_view bytes);

// Makes a new folder at path: fill writes the content into a temporary folder, whose path it gets,
// and which is then renamed. Stop if path exists.
void MakeFolder(const std::string& path, const std::function<void(const std::string&)>& fill);

// Stop if path leads to the same file as input.
void RequireOther(const std::string& path, const std::string& input);
