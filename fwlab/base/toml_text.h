// Writes values of TOML files, for manifests and descriptions that programs make.
#pragma once

#include <string>

// A text in quotation marks if all bytes are printable or line feeds, else a list of numbers. The
// readers of manifests and descriptions accept both forms.
std::string TomlBytes(const std::string& bytes);
std::string TomlList(const std::string& bytes); // always a list of numbers
