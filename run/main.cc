// The tool's entry. It reads neither arguments nor environment; one start makes one update attempt
// at most.
#include "run/update_run.h"

int main() {
    return UpdateRun();
}
