#pragma once
// Folders that ctest passes to the test programs in their environment
// (tests/CMakeLists.txt): SWL_TEST_MACHINES (the machine profiles),
// SWL_TEST_DRIVERS (the stand-in driver package), SWL_TEST_DOUBLES (the
// newdev.dll and cfgmgr32.dll doubles).
#include <string>

// The folder named by the variable as a Windows path: a Linux path "/a/b"
// becomes "Z:\a\b". Throws std::runtime_error when the variable is not set.
std::wstring TestFolder(const char* variable);
