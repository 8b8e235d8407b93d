// Texts for people.
#pragma once

#include <string>
#include <vector>

using Texts = std::vector<std::string>;

// The text as one printable word for a shell.
std::string ShellWord(const std::string& text);

// A line for each row, without line ends: the cells of a column begin below each other, those of
// the column `numbers` (from 0) end so. All rows have the same number of cells.
Texts InColumns(const std::vector<Texts>& rows, size_t numbers);
