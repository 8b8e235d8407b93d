// Tables for people.
#pragma once

#include "fwlab/base/text.h"

// A line for each row, without line ends: the cells of a column begin below each other, those of
// the column `numbers` (from 0) end so. All rows have the same number of cells.
Texts InColumns(const std::vector<Texts>& rows, size_t numbers);
