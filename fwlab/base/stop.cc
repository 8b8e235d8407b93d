#include "fwlab/base/stop.h"

#include <cstring>

void Require(bool isRight, int status, const std::string& otherwise) {
    if (!isRight) {
        throw Stop{status, otherwise};
    }
}

Stop FailureAt(const std::string& path, int error) {
    return {2, path + ": " + strerror(error)};
}
