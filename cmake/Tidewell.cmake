# Flags and helpers shared by every folder's CMakeLists.txt.

find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()

add_library(tidewell_flags INTERFACE)
target_include_directories(tidewell_flags INTERFACE ${CMAKE_SOURCE_DIR})
target_compile_options(tidewell_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor
  -Woverloaded-virtual -Wold-style-cast -Wcast-qual -Wformat=2 -Wimplicit-fallthrough
  -Wnull-dereference $<$<BOOL:${TIDEWELL_WERROR}>:-Werror>)
# A program links only the shared libraries that it uses.
target_link_options(tidewell_flags INTERFACE LINKER:--as-needed)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # GCC 12 misjudges what it inlines of its own library's strings and vectors when it optimises.
  target_compile_options(tidewell_flags INTERFACE -Wno-restrict -Wno-stringop-overread)
endif()
target_link_libraries(tidewell_flags INTERFACE Threads::Threads)

# The same without sanitizers, for a program that limits its own memory.
add_library(tidewell_plain_flags INTERFACE)
foreach(property INTERFACE_INCLUDE_DIRECTORIES INTERFACE_COMPILE_OPTIONS)
  get_target_property(value tidewell_flags ${property})
  set_target_properties(tidewell_plain_flags PROPERTIES ${property} "${value}")
endforeach()

if(TIDEWELL_SANITIZE)
  target_compile_options(tidewell_flags INTERFACE
    -fsanitize=${TIDEWELL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(tidewell_flags INTERFACE -fsanitize=${TIDEWELL_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # GCC's analyses see through the sanitizers' instrumentation and misfire.
    target_compile_options(tidewell_flags INTERFACE
      -Wno-null-dereference -Wno-maybe-uninitialized -Wno-free-nonheap-object)
  endif()
endif()

# tidewell_library(NAME [ONLY file...] [EXCEPT file...] [USES target...]
#                  [PACKAGES pkg-config-module...])
# One static library from the .cpp files of the current folder, or a part of them. USES is visible to dependents;
# PACKAGES are third-party and stay private, because their headers appear in .cpp files only.
function(tidewell_library name)
  cmake_parse_arguments(ARG "" "" "ONLY;EXCEPT;USES;PACKAGES" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS *.cpp)
  list(TRANSFORM ARG_EXCEPT PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  list(REMOVE_ITEM sources ${ARG_EXCEPT})
  if(ARG_ONLY)
    set(sources ${ARG_ONLY})
  endif()
  list(FILTER sources EXCLUDE REGEX "/main\\.cpp$")
  if(sources)
    add_library(${name} STATIC ${sources})
    target_link_libraries(${name} PUBLIC tidewell_flags ${ARG_USES})
    foreach(package ${ARG_PACKAGES})
      if(NOT TARGET PkgConfig::${package})
        pkg_check_modules(${package} REQUIRED IMPORTED_TARGET GLOBAL ${package})
      endif()
      target_link_libraries(${name} PRIVATE PkgConfig::${package})
    endforeach()
  else()
    add_library(${name} INTERFACE)
    target_link_libraries(${name} INTERFACE tidewell_flags ${ARG_USES})
  endif()
endfunction()
