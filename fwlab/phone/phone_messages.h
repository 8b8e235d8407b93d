// What the phone's routines log where they run in fwlab.
#pragma once

#include "fwlab/base/text.h"

// The messages of both logs since the last call, oldest first, printable, without line ends.
Texts TakePhoneMessages();
