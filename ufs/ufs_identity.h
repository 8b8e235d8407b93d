// The identity of the local UFS device, in the form of a package entry.
#pragma once

#include "fwpkg/firmware_package.h"

// Fills device, which the caller has zeroed, from the kernel's /proc/bootdevice nodes and prints it
// to the console log. Returns 0, or -1 when a node cannot be opened or read; device is partly
// filled then and must not be used.
[[nodiscard]] int GetUfsLocalDevInfo(UfsFwHeader& device);

// Replaces the product name of one device model that was reworked, from revision "09" on: packages
// carry its firmware under another name. Every other device keeps its name.
void UpdateProductName(UfsFwHeader& device);

// Prints header to the console log; label is the text in parentheses.
void PrintUfsFwHdr(const char* label, const UfsFwHeader& header);
