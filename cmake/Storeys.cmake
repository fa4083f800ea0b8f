# How the libraries are put together.

# What the shared libraries of this project have in common.
function( oruquarn_library target )
   target_link_libraries( ${target} PRIVATE $<BUILD_INTERFACE:oruquarn_options> )
   # Calls within a library go straight to their function; nobody replaces one of ours from outside.
   target_link_options( ${target} PRIVATE -Wl,-z,relro,-z,now -Wl,-Bsymbolic-functions )
   # A sanitizer's runtime comes with the program, so its symbols are undefined in a library.
   if( NOT ORUQUARN_SANITIZE )
      target_link_options( ${target} PRIVATE -Wl,--no-undefined )
   endif()
   target_include_directories( ${target} PUBLIC $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}> )
   if( target MATCHES "^OruQuarn" )
      target_include_directories( ${target} PUBLIC
         $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> )
   else()
      target_include_directories( ${target} PUBLIC
         $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include> )
   endif()
   set_target_properties( ${target} PROPERTIES
      VERSION ${PROJECT_VERSION}
      SOVERSION ${PROJECT_VERSION_MAJOR} )
endfunction()

# One storey of libOruQuarn: an object target of its own, linked into the library.
function( oruquarn_storey name )
   add_library( oruquarn_${name} OBJECT ${ARGN} )
   target_link_libraries( oruquarn_${name} PRIVATE
      oruquarn_options Quarn oru timeout netns fmt::fmt Boost::headers PkgConfig::LIBEVENT
      Threads::Threads )
   target_include_directories( oruquarn_${name} PRIVATE
      ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include )
   target_sources( OruQuarn PRIVATE $<TARGET_OBJECTS:oruquarn_${name}> )
endfunction()
