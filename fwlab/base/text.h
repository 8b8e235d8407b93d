// Texts for people.
#pragma once

#include <string>
#include <vector>

using Texts = std::vector<std::string>;

// The text as one printable word for a shell.
std::string ShellWord(const std::string& text);
