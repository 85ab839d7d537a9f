# Removes the std::wstring members from SWLLib's import library. The DLL still
# exports them, but a MinGW component that links the import library also links
# its own libstdc++, which defines the same members; offering them twice makes
# the link fail with multiple definitions. The consumer uses its own copies
# (identical code from the same libstdc++).
#
# Inputs: IMPLIB, NM, AR.
execute_process(COMMAND ${NM} -A --defined-only ${IMPLIB}
    OUTPUT_VARIABLE nm_out RESULT_VARIABLE nm_rc ERROR_QUIET)
if(NOT nm_rc EQUAL 0)
    message(FATAL_ERROR "cannot list ${IMPLIB}")
endif()
string(REPLACE "\n" ";" lines "${nm_out}")
set(members "")
foreach(line IN LISTS lines)
    if(line MATCHES "^[^:]+:([^:]+):[0-9a-fA-F]* *[A-Za-z] (__imp_)?_ZNK?St7__cxx1112basic_stringIwSt11char_traitsIwESaIwEE")
        list(APPEND members ${CMAKE_MATCH_1})
    endif()
endforeach()
list(REMOVE_DUPLICATES members)
list(LENGTH members count)
if(count GREATER 0)
    execute_process(COMMAND ${AR} d ${IMPLIB} ${members} RESULT_VARIABLE ar_rc)
    if(NOT ar_rc EQUAL 0)
        message(FATAL_ERROR "cannot prune ${IMPLIB}")
    endif()
endif()
