# Writes the final module-definition file of SWLLib: the hand-written list of
# custom actions, followed by every member of std::wstring (the base of the
# exported CKesString). libstdc++ declares its wstring instantiation extern, so
# dllexport on an explicit instantiation is ignored by GCC; instead the members
# are taken from the wstring instantiation object of the static libstdc++ and
# exported by name, which also pulls them into the DLL.
#
# Inputs: DEF_IN, DEF_OUT, NM, LIBSTDCXX.
execute_process(
    COMMAND ${NM} -g --defined-only -A ${LIBSTDCXX}
    OUTPUT_VARIABLE nm_out
    RESULT_VARIABLE nm_rc
    ERROR_QUIET)
if(NOT nm_rc EQUAL 0)
    message(FATAL_ERROR "cannot list ${LIBSTDCXX} with ${NM}")
endif()
string(REPLACE "\n" ";" nm_lines "${nm_out}")
set(members "")
foreach(line IN LISTS nm_lines)
    if(line MATCHES ":wstring-inst\\.o:[0-9a-fA-F]+ ([TDRB]) (_ZNK?St7__cxx1112basic_stringIwSt11char_traitsIwESaIwEE[^ ]*)$")
        if(CMAKE_MATCH_1 STREQUAL "T")
            list(APPEND members "    ${CMAKE_MATCH_2}")
        else()
            list(APPEND members "    ${CMAKE_MATCH_2} DATA")
        endif()
    endif()
endforeach()
list(REMOVE_DUPLICATES members)
list(SORT members)
list(LENGTH members count)
if(count LESS 100)
    message(FATAL_ERROR "found only ${count} std::wstring members in ${LIBSTDCXX}")
endif()
file(READ ${DEF_IN} def_text)
string(REPLACE ";" "\n" member_text "${members}")
file(WRITE ${DEF_OUT}.tmp "${def_text}    ; std::wstring members (${count})\n${member_text}\n")
file(COPY_FILE ${DEF_OUT}.tmp ${DEF_OUT} ONLY_IF_DIFFERENT)
file(REMOVE ${DEF_OUT}.tmp)
