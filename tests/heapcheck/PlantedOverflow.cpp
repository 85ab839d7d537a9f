// Linked into a copy of SWLLib.dll that is otherwise unchanged: writes one byte
// past a heap block each time the DLL is unloaded, after the custom action has
// done its work. The end-to-end runner must then fail the scenario for heap
// damage alone (e2e_detects_broken_dll). At load it would be no proof: every
// later heap call of the process then fails validation, and the action with it.
#include <cstdlib>

namespace
{
struct PlantedOverflow
{
    ~PlantedOverflow()
    {
        volatile size_t size = 16; // volatile: kept as written by the compiler
        char* volatile block = static_cast<char*>(std::malloc(size));
        if (block != nullptr)
            static_cast<volatile char*>(block)[size] = 'X';
        std::free(block);
    }
} s_plantedOverflow;
} // namespace
