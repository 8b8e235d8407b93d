// The simulated phone inside a test or a fuzz target that is linked with libsimphone.so: no process
// is started, and the product's routines are called directly.
//
// A call counts as the tool's if it comes from the program itself, the test's own calls included.
// The library must come before the sanitizers' runtime, which would answer reads and ioctls first:
// link that runtime as a shared library, behind this one.
#pragma once

#pragma GCC visibility push(default)
extern "C" {

// Attaches the phone in `directory` and starts a run; `faults` (may be null) are texts, one a line.
// Returns 0, or -1 with a text on the standard error and no phone attached. A phone that was
// attached before is detached. A fault that ends the power ends the whole process.
int simphone_attach(const char* directory, const char* faults);

// Everything passes through again. Descriptors that are still open stay open.
void simphone_detach();
}
#pragma GCC visibility pop
