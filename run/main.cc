// The tool's entry. It reads neither arguments nor environment; one start is one update attempt.
#include "run/update_run.h"

int main() {
    return UpdateRun();
}
