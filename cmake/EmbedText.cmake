# cmake -DINPUT=<file> -DOUTPUT=<header> -DSYMBOL=<name> -P EmbedText.cmake
# Writes a header that holds the text of INPUT as `constexpr const char SYMBOL[]`, so a program
# carries a data file of the source tree without depending on an installed copy.
file(READ "${INPUT}" text)
string(FIND "${text}" ")embedded\"" clash)
if(NOT clash EQUAL -1)
  message(FATAL_ERROR "${INPUT} contains the raw-string delimiter ')embedded\"'")
endif()
get_filename_component(name "${INPUT}" NAME)
set(content "// Generated from ${name} at build time; edit that file instead.\n#pragma once\n\nconstexpr const char ${SYMBOL}[] = R\"embedded(${text})embedded\";\n")
# Rewriting an unchanged header would rebuild its users for nothing.
if(EXISTS "${OUTPUT}")
  file(READ "${OUTPUT}" old)
  if(old STREQUAL content)
    return()
  endif()
endif()
file(WRITE "${OUTPUT}" "${content}")
