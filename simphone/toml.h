// The TOML library, for the files that look into its nodes.
#pragma once

#define TOML_HEADER_ONLY 0 // it is installed as a library
#include <toml++/toml.h>
