// The TOML library, for the files that look into its nodes. keys.cc compiles what is not a
// template.
#pragma once

#define TOML_EXCEPTIONS 0
#define TOML_HEADER_ONLY 0
#include <toml++/toml.h>
