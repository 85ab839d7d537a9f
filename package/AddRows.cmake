# Applies package/CorvaneSWL.sql to a package that wixl built:
#   cmake -DMSI=... -DSQL=... -DMSIBUILD=... -P AddRows.cmake
file(STRINGS ${SQL} queries)
foreach(query IN LISTS queries)
    if(query MATCHES "^--" OR query STREQUAL "")
        continue()
    endif()
    execute_process(COMMAND ${MSIBUILD} ${MSI} -q "${query}" RESULT_VARIABLE rc ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "msibuild failed (${rc}) on: ${query}\n${err}")
    endif()
endforeach()
