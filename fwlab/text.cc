// Makes bytes from packages and phones fit for a terminal. Called wherever fwlab prints them.
#include "fwlab/text.h"

#include "simphone/files.h"

std::string Quoted(const std::string& bytes, const char* mark) {
    return mark + Escaped(bytes) + mark;
}
