# Adds every direct sub-folder of the current folder that has a CMakeLists.txt, in name order,
# so a new tool, test group or benchmark is one new folder and no edit of a shared file.
file(GLOB _cbradio_children LIST_DIRECTORIES true RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR}/*)
list(SORT _cbradio_children)
foreach(_child IN LISTS _cbradio_children)
  if(IS_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/${_child} AND EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${_child}/CMakeLists.txt)
    add_subdirectory(${_child})
  endif()
endforeach()
