// Texts for people.
#pragma once

#include <string>
#include <vector>

using Texts = std::vector<std::string>;

// Printable (see Escaped), in quotation marks.
std::string Quoted(const std::string& bytes, const char* mark = "\"");
