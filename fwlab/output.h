// Writes results: each whole or not at all, and only regular files are replaced.
#pragma once

#include <functional>
#include <string>

// Stop if WriteOutput would not write there.
void CheckOutput(const std::string& path);

// Puts bytes into a new file at path, in place of a regular file that was there. The old content
// stays until the new one is whole and synced. Stop if path is a link, a device or anything else
// that is no regular file, or cannot be written.
void WriteOutput(const std::string& path, const std::string& bytes);

// Makes a new folder at path, with what fill puts into the folder that it is given. There is none
// until all is there. Stop if anything is at path.
void MakeFolder(const std::string& path, const std::function<void(const std::string&)>& fill);

// Stop if path leads to the same file as input.
void RequireOther(const std::string& path, const std::string& input);
