// Words the failures of system calls.
#include "fwlab/base/stop.h"

#include <cstring>

Stop FailureAt(const std::string& path, int error) {
    return {2, path + ": " + strerror(error)};
}
