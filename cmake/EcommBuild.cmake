# ecomm_library(<target> <folder> DEPS <libs...> [EXCLUDE <files...>])
# Builds the sources directly in <folder> (not its sub-folders, which are layers of
# their own) into one static library. Headers are included by their path from the
# project root, e.g. #include "base/strtools.h". A folder without sources yet gives
# an interface library, so the layer chain stays intact while it fills.
function(ecomm_library target folder)
  cmake_parse_arguments(ARG "" "" "DEPS;EXCLUDE" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/${folder}/*.cpp")
  foreach(excluded IN LISTS ARG_EXCLUDE)
    list(REMOVE_ITEM sources "${PROJECT_SOURCE_DIR}/${folder}/${excluded}")
  endforeach()
  if(sources)
    add_library(${target} STATIC ${sources})
    target_include_directories(${target} PUBLIC ${PROJECT_SOURCE_DIR})
    target_link_libraries(${target} PUBLIC ${ARG_DEPS})
  else()
    add_library(${target} INTERFACE)
    target_include_directories(${target} INTERFACE ${PROJECT_SOURCE_DIR})
    target_link_libraries(${target} INTERFACE ${ARG_DEPS})
  endif()
endfunction()

# ecomm_add_subfolders(): adds every sub-folder of the current source folder that has
# a CMakeLists.txt; tools/, bench/ and fuzz/ keep one program per sub-folder.
function(ecomm_add_subfolders)
  file(GLOB entries LIST_DIRECTORIES true "${CMAKE_CURRENT_SOURCE_DIR}/*")
  foreach(dir IN LISTS entries)
    if(IS_DIRECTORY "${dir}" AND EXISTS "${dir}/CMakeLists.txt")
      add_subdirectory("${dir}")
    endif()
  endforeach()
endfunction()
