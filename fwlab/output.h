// Writes results: whole files that replace nothing but files, or nothing at all.
#pragma once

#include <string>

// Puts bytes into a new file at path, in place of a regular file that was there. The old content
// stays until the new one is whole and synced. Stop if path is a link, a device or anything else
// that is no regular file, or cannot be written.
void WriteOutput(const std::string& path, const std::string& bytes);

// Stop if path leads to the same file as input.
void RequireOther(const std::string& path, const std::string& input);
