// How far long work has come.
#pragma once

#include <cstddef>

// Shows it on a terminal, in a line of standard error that the last step (done is all) removes:
// "3 of 9 phones". Cheap enough for each of many short steps. One work at a time.
void ShowProgress(size_t done, size_t all, const char* what);
