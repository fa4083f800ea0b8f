# Checks of the sources themselves.
#
#     check_layering   who includes whom, against the storeys (also a test)
#     check_format     the layout, when clang-format 14 is there
#     headers_alone    each public header compiled by itself, as its users see it
#
# Warnings are errors under ORUQUARN_WERROR, which the presets set.

find_package( Python3 REQUIRED COMPONENTS Interpreter )

set( oruquarn_layering ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/tests/layering_test.py )
add_custom_target( check_layering COMMAND ${oruquarn_layering} ${PROJECT_SOURCE_DIR} VERBATIM )
add_test( NAME checks.layering COMMAND ${oruquarn_layering} ${PROJECT_SOURCE_DIR} )
add_test( NAME checks.layering_finds_faults COMMAND ${oruquarn_layering} --self-test )

find_program( ORUQUARN_CLANG_FORMAT clang-format-14 )
if( ORUQUARN_CLANG_FORMAT )
   add_custom_target( check_format
      COMMAND ${PROJECT_SOURCE_DIR}/scripts/format --check USES_TERMINAL VERBATIM )
endif()

# The include path is that of a user of the installed package, so a header that leans on one of the
# library's own does not compile. Each is included twice, which tries its guard.
file( GLOB_RECURSE headers CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}
   ${PROJECT_SOURCE_DIR}/include/*.h ${PROJECT_SOURCE_DIR}/standins/*/include/*.h )
set( sources )
foreach( header ${headers} )
   string( REGEX REPLACE "^(standins/[^/]+/)?include/" "" name ${header} )
   # These two are for C as well.
   set( suffixes cc )
   if( name MATCHES "^(timeout|netns)[.]h$" )
      list( APPEND suffixes c )
   endif()
   foreach( suffix ${suffixes} )
      set( source ${PROJECT_BINARY_DIR}/headers_alone/${name}.${suffix} )
      file( CONFIGURE OUTPUT ${source} CONTENT "#include <${name}>\n#include <${name}>\n" )
      list( APPEND sources ${source} )
   endforeach()
endforeach()
add_library( headers_alone OBJECT ${sources} )
target_link_libraries( headers_alone PRIVATE OruQuarn netns oruquarn_options )
target_compile_options( headers_alone PRIVATE $<$<COMPILE_LANGUAGE:C>:-Wall;-Wextra;-Wpedantic> )
# It takes as long as the library itself.
set_target_properties( headers_alone PROPERTIES EXCLUDE_FROM_ALL ON )
