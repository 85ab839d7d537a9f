// Writes one byte past a heap block on purpose, then frees it and exits with 0.
// Run through tools/wine-run.sh in a prefix with heap checking on, it must be
// reported as heap damage; if it is not, heap checking is not working.
#include <windows.h>
#include <cstdio>
#include <cstdlib>

int main()
{
    // volatile: the compiler must neither see the overflow coming nor drop the
    // allocation, whose block is never read.
    volatile size_t size = 16;
    char* volatile block = static_cast<char*>(std::malloc(size));
    if (block == nullptr)
        return 2;
    static_cast<volatile char*>(block)[size] = 'X';
    std::free(block);
    std::puts("wrote one byte past a 16-byte block");
    return 0;
}
