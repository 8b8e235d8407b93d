// Prints eMMC headers.
#pragma once

#include "fwpkg/firmware_package.h"

// Prints header to the standard output, without the logger's time stamp: the fields from emmcMagic
// to emmcFwSize, one a line, each with label in front.
void PrintEmmcFwHeader(const char* label, const EmmcFwHeader& header);
