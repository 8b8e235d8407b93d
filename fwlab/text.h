// Texts for people.
#pragma once

#include <string>
#include <vector>

using Texts = std::vector<std::string>;

// Printable (see Escaped), in quotation marks.
std::string Quoted(const std::string& bytes);

// A word for a shell, printable whatever it holds.
std::string ShellWord(const std::string& text);
