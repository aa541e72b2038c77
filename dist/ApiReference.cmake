# cmake -DXML=<interface.xml> -DDOC=<doc.md> -DMODE=check|update -P ApiReference.cmake
# Writes the HMI API reference (methods and signals with their documentation) from the interface
# description, between the markers "<!-- api-reference:begin -->" and "<!-- api-reference:end -->"
# of DOC. MODE=check fails when DOC holds anything else there, so the two cannot drift apart.
#
# The description is read line by line: one element per line, as the file is written.
cmake_minimum_required(VERSION 3.25)
set(begin_marker "<!-- api-reference:begin -->")
set(end_marker "<!-- api-reference:end -->")

file(READ "${XML}" xml)
# Characters that CMake lists treat specially are hidden while the text is a list.
string(REPLACE ";" "@SEMI@" xml "${xml}")
string(REPLACE "[" "@LBR@" xml "${xml}")
string(REPLACE "]" "@RBR@" xml "${xml}")
string(REPLACE "\n" ";" lines "${xml}")

function(decode out text)
  string(REPLACE "@SEMI@" ";" text "${text}")
  string(REPLACE "@LBR@" "[" text "${text}")
  string(REPLACE "@RBR@" "]" text "${text}")
  string(REPLACE "&quot;" "\"" text "${text}")
  string(REPLACE "&lt;" "<" text "${text}")
  string(REPLACE "&gt;" ">" text "${text}")
  string(REPLACE "&apos;" "'" text "${text}")
  string(REPLACE "&amp;" "&" text "${text}")
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

set(interface "")
set(interface_doc "")
set(kind "")
set(methods "")
set(signals "")
foreach(line IN LISTS lines)
  if(line MATCHES "<interface name=\"([^\"]+)\"")
    set(interface "${CMAKE_MATCH_1}")
  elseif(line MATCHES "<(method|signal) name=\"([^\"]+)\"")
    set(kind "${CMAKE_MATCH_1}")
    set(name "${CMAKE_MATCH_2}")
    set(doc "")
    set(args "")
  elseif(line MATCHES "<annotation name=\"org.gtk.GDBus.DocString\" value=\"([^\"]*)\"")
    decode(text "${CMAKE_MATCH_1}")
    if(kind)
      set(doc "${text}")
    else()
      set(interface_doc "${text}")
    endif()
  elseif(kind AND line MATCHES "<arg name=\"([^\"]+)\" type=\"([^\"]+)\"( direction=\"([^\"]+)\")?")
    set(arg "`${CMAKE_MATCH_2} ${CMAKE_MATCH_1}`")
    if(CMAKE_MATCH_4 STREQUAL "out")
      set(args "${args} → ${arg}")
    elseif(args)
      set(args "${args}, ${arg}")
    else()
      set(args "${arg}")
    endif()
  elseif(line MATCHES "</(method|signal)>")
    if(NOT doc)
      message(FATAL_ERROR "${XML}: ${kind} ${name} has no documentation")
    endif()
    set(row "| `${name}` | ${args} | ${doc} |\n")
    if(kind STREQUAL "method")
      string(APPEND methods "${row}")
    else()
      string(APPEND signals "${row}")
    endif()
    set(kind "")
  endif()
endforeach()
if(NOT interface OR NOT methods OR NOT signals)
  message(FATAL_ERROR "${XML}: no interface with methods and signals found")
endif()

get_filename_component(xml_name "${XML}" NAME)
set(reference "${begin_marker}
<!-- Generated from dist/dbus/${xml_name}: edit that file, then run
     `cmake --build build --target api-reference-update`. -->

Interface `${interface}` on object `/com/quorin/service/CBRadioService`.
${interface_doc}

#### Methods

| Method | Arguments | What it does, its JSON argument and result, the signal with the outcome |
|---|---|---|
${methods}
#### Signals

| Signal | Argument | When it comes and its JSON payload |
|---|---|---|
${signals}${end_marker}")

file(READ "${DOC}" doc_text)
string(FIND "${doc_text}" "${begin_marker}" at_begin)
string(FIND "${doc_text}" "${end_marker}" at_end)
if(at_begin EQUAL -1 OR at_end EQUAL -1 OR at_end LESS at_begin)
  message(FATAL_ERROR "${DOC}: the markers ${begin_marker} and ${end_marker} are missing")
endif()
string(LENGTH "${end_marker}" end_length)
math(EXPR after "${at_end} + ${end_length}")
math(EXPR current_length "${after} - ${at_begin}")
string(SUBSTRING "${doc_text}" ${at_begin} ${current_length} current)

if(MODE STREQUAL "update")
  if(NOT current STREQUAL reference)
    string(SUBSTRING "${doc_text}" 0 ${at_begin} head)
    string(SUBSTRING "${doc_text}" ${after} -1 tail)
    file(WRITE "${DOC}" "${head}${reference}${tail}")
    message(STATUS "${DOC}: API reference rewritten")
  endif()
elseif(NOT current STREQUAL reference)
  message(FATAL_ERROR "${DOC}: the API reference differs from ${XML}; run "
                      "`cmake --build <build> --target api-reference-update`")
endif()
