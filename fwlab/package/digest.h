// SHA-256, in lower-case hexadecimal digits.
#pragma once

#include "fwlab/package/package.h"

std::string Sha256(const std::string& bytes);
std::string Sha256(const Package& package, size_t offset, size_t size);
