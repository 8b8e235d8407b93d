// The identity of the local UFS device, described as a package entry would describe it.
#pragma once

#include "fwpkg/firmware_package.h"

// Fills device, which the caller has zeroed, from the kernel's /proc/bootdevice nodes and prints it
// to the console log. Returns 0, or -1 when a node cannot be opened or read; device is partly
// filled then and must not be used.
[[nodiscard]] int GetUfsLocalDevInfo(UfsFwHeader& device);

// Replaces the product name of one reworked device model, from the revision on that needs another
// firmware. Every other device keeps its name.
void UpdateProductName(UfsFwHeader& device);

// Dumps header to the console log; label is the text in parentheses.
void PrintUfsFwHdr(const char* label, const UfsFwHeader& header);
