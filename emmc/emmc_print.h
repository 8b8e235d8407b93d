// The dump of an eMMC header on the standard output.
#pragma once

#include "fwpkg/firmware_package.h"

// Prints magic to size of header, a field a line, under label. Straight to the standard output,
// without the logger's stamp.
void PrintEmmcFwHeader(const char* label, const EmmcFwHeader& header);
