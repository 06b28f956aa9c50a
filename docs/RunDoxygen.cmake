# cmake -DDOXYGEN=... -DDOXYFILE=... -DOUTPUT=... -DWARNINGS=... -P RunDoxygen.cmake
#
# Builds the API reference into OUTPUT afresh and fails when Doxygen fails or warns;
# the warnings (Doxygen writes them to WARNINGS) are printed then.
foreach(var IN ITEMS DOXYGEN DOXYFILE OUTPUT WARNINGS)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "RunDoxygen.cmake: ${var} not set")
  endif()
endforeach()

file(REMOVE_RECURSE "${OUTPUT}")
file(REMOVE "${WARNINGS}")
file(MAKE_DIRECTORY "${OUTPUT}")
execute_process(COMMAND "${DOXYGEN}" "${DOXYFILE}"
                RESULT_VARIABLE status
                OUTPUT_VARIABLE output
                ERROR_VARIABLE output)

set(warnings "")
if(EXISTS "${WARNINGS}")
  file(READ "${WARNINGS}" warnings)
endif()
if(NOT status EQUAL 0 OR NOT warnings STREQUAL "")
  message(FATAL_ERROR "Doxygen failed (status ${status}) or warned:\n${output}${warnings}")
endif()
if(NOT EXISTS "${OUTPUT}/html/index.html")
  message(FATAL_ERROR "Doxygen wrote no ${OUTPUT}/html/index.html")
endif()
message(STATUS "API reference without warnings: ${OUTPUT}/html/index.html")
