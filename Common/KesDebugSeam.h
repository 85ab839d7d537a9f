#pragma once
// Test seam of the trace log: called inside Print's protected section just
// before the line is written. Null in production; a test sets it to a function
// that throws, to prove that no exception leaves Print and that the lock is
// released. Nothing else can make the C runtime's formatting throw.
extern void (*g_pfnKesDebugBeforeWrite)();
