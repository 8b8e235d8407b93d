// SHA-256, in lower-case hexadecimal digits.
#pragma once

#include <string>
#include <string_view>

std::string Sha256(std::string_view bytes);
