# What every target of ours is compiled with.

set( CMAKE_CXX_STANDARD 20 )
set( CMAKE_CXX_STANDARD_REQUIRED ON )
set( CMAKE_CXX_EXTENSIONS OFF )
set( CMAKE_C_STANDARD 11 )
set( CMAKE_POSITION_INDEPENDENT_CODE ON )
set( CMAKE_CXX_VISIBILITY_PRESET hidden )
set( CMAKE_C_VISIBILITY_PRESET hidden )
set( CMAKE_VISIBILITY_INLINES_HIDDEN ON )
set( CMAKE_EXPORT_COMPILE_COMMANDS ON )

if( NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES )
   set( CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE )
endif()

find_program( ORUQUARN_CCACHE ccache )
if( ORUQUARN_CCACHE AND PROJECT_IS_TOP_LEVEL )
   # What it asks for before it caches what was compiled with a precompiled header.
   set( launcher ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros ${ORUQUARN_CCACHE} )
   set( CMAKE_C_COMPILER_LAUNCHER ${launcher} )
   set( CMAKE_CXX_COMPILER_LAUNCHER ${launcher} )
endif()

add_library( oruquarn_options INTERFACE )
target_compile_options( oruquarn_options INTERFACE
   $<$<COMPILE_LANGUAGE:CXX>:-Wall;-Wextra;-Wpedantic;-Wshadow;-Wconversion;-Wcast-qual;-Wold-style-cast;-Wnon-virtual-dtor;-Woverloaded-virtual;-Wextra-semi> )
# Instrumented code misleads the flow analysis of g++ (so its manual); what it warns of there is no
# error.
if( ORUQUARN_WERROR AND NOT ORUQUARN_SANITIZE )
   target_compile_options( oruquarn_options INTERFACE -Werror )
endif()
# g++ 12 takes `"text" + std::to_string( n )` for an overlapping copy when it optimises.
if( CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13 )
   target_compile_options( oruquarn_options INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict> )
endif()
target_compile_options( oruquarn_options INTERFACE -fno-semantic-interposition -fno-plt )
# The checks of a bad downcast are the undefined-behaviour sanitizer's; the runtime stays on after
# none of them, so that a finding fails the test that met it.
if( ORUQUARN_SANITIZE )
   target_compile_options( oruquarn_options INTERFACE
      -fsanitize=${ORUQUARN_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer )
   target_link_options( oruquarn_options INTERFACE -fsanitize=${ORUQUARN_SANITIZE} )
endif()
# Linked by every program of ours.
add_library( oruquarn_program INTERFACE )
target_link_libraries( oruquarn_program INTERFACE oruquarn_options )
if( ORUQUARN_COVERAGE )
   target_compile_options( oruquarn_options INTERFACE --coverage -fprofile-update=atomic )
   target_link_options( oruquarn_options INTERFACE
      --coverage -Wl,--undefined=__gcov_dump,--undefined=__gcov_reset )
   target_sources( oruquarn_program INTERFACE ${PROJECT_SOURCE_DIR}/tests/support/Coverage.cc )
   target_link_libraries( oruquarn_program INTERFACE ${CMAKE_DL_LIBS} )
endif()
