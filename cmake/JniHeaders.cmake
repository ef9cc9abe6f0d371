# Script (cmake -P): writes the C headers of the natives that the Java classes declare.
#
#   JAVAC        the compiler
#   SOURCE_PATH  root of the Java sources
#   SOURCES      response file that lists the sources to compile
#   OUT          folder for the headers
#   STAMP        touched only when a header changed
#
# Headers are compared before they are replaced, so an edit of a Java method body rebuilds
# nothing native.

cmake_minimum_required(VERSION 3.25)

set(fresh "${OUT}.new")
set(classes "${OUT}.classes")
file(REMOVE_RECURSE "${fresh}" "${classes}")
file(MAKE_DIRECTORY "${fresh}" "${classes}" "${OUT}")

execute_process(
  COMMAND "${JAVAC}" --release 17 -proc:none -nowarn -implicit:none -encoding UTF-8
          -sourcepath "${SOURCE_PATH}" -h "${fresh}" -d "${classes}" "@${SOURCES}"
  RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "javac -h failed (${status})")
endif()

set(changed FALSE)
file(GLOB old RELATIVE "${OUT}" "${OUT}/*.h")
file(GLOB new RELATIVE "${fresh}" "${fresh}/*.h")
foreach(header IN LISTS old)
  if(NOT header IN_LIST new)
    file(REMOVE "${OUT}/${header}")
    set(changed TRUE)
  endif()
endforeach()
foreach(header IN LISTS new)
  set(before "")
  if(EXISTS "${OUT}/${header}")
    file(SHA256 "${OUT}/${header}" before)
  endif()
  file(SHA256 "${fresh}/${header}" after)
  if(NOT before STREQUAL after)
    file(COPY_FILE "${fresh}/${header}" "${OUT}/${header}")
    set(changed TRUE)
  endif()
endforeach()
file(REMOVE_RECURSE "${fresh}" "${classes}")

if(changed OR NOT EXISTS "${STAMP}")
  file(TOUCH "${STAMP}")
endif()
