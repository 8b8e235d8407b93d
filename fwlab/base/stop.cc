#include "fwlab/base/stop.h"

#include "fwlab/base/json.h"
#include "simphone/text.h"

#include <cstring>

void Require(bool isRight, int status, const std::string& otherwise) {
    if (!isRight) {
        throw Stop{status, otherwise};
    }
}

std::string LineOf(const Stop& stop, bool asJson) {
    const std::string text = Displayed(stop.text);
    return asJson ? Json{{"error", text}, {"status", stop.status}}.dump() : "fwlab: " + text;
}

Stop FailureAt(const std::string& path, int error) {
    return {2, path + ": " + strerror(error)};
}
