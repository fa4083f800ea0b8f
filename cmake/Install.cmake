# What `cmake --install` lays down: headers, shared libraries, what finds them again, and programs.
#
# Nothing that is installed names the source or the build folder, and every path is relative, so
# that an installed tree can be moved as a whole.

option( ORUQUARN_INSTALL "Make installation rules" ${PROJECT_IS_TOP_LEVEL} )
if( NOT ORUQUARN_INSTALL )
   return()
endif()

include( CMakePackageConfigHelpers )

set( oruquarn_installed OruQuarn OruQuarnTesting Quarn oru timeout netns )
set( oruquarn_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/OruQuarn )

# The libraries lie side by side, so each finds the others in its own folder.
set_target_properties( ${oruquarn_installed} PROPERTIES INSTALL_RPATH "\$ORIGIN" )

# The headers of these need it; those of the other two are C.
foreach( target OruQuarn OruQuarnTesting Quarn oru )
   target_compile_features( ${target} INTERFACE cxx_std_20 )
endforeach()

install( TARGETS ${oruquarn_installed}
   EXPORT OruQuarnTargets
   LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} )

install( DIRECTORY
      include/
      standins/base/include/
      standins/oru/include/
      standins/netns/include/
      standins/timeout/include/
   DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
   FILES_MATCHING PATTERN "*.h" )

if( ORUQUARN_TOOLS )
   install( TARGETS oruquarn-show RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} )
   install( FILES tools/oruquarn-show.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 )
endif()

# The CMake package.
install( EXPORT OruQuarnTargets
   NAMESPACE OruQuarn::
   DESTINATION ${oruquarn_package_dir} )
configure_package_config_file( cmake/OruQuarnConfig.cmake.in
   ${PROJECT_BINARY_DIR}/OruQuarnConfig.cmake
   INSTALL_DESTINATION ${oruquarn_package_dir} )
# Before 1.0 a new minor version may break its users.
write_basic_package_version_file( ${PROJECT_BINARY_DIR}/OruQuarnConfigVersion.cmake
   COMPATIBILITY SameMinorVersion )
install( FILES
      ${PROJECT_BINARY_DIR}/OruQuarnConfig.cmake
      ${PROJECT_BINARY_DIR}/OruQuarnConfigVersion.cmake
   DESTINATION ${oruquarn_package_dir} )

# The pkg-config files say where they lie themselves, and the rest from there.
set( oruquarn_pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig )
foreach( kind prefix libdir includedir )
   if( kind STREQUAL "prefix" )
      set( folder "" )
   else()
      string( TOUPPER ${kind} upper )
      set( folder "${CMAKE_INSTALL_${upper}}" )
   endif()
   if( IS_ABSOLUTE "${folder}" OR IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" )
      # Folders that were chosen as absolute ones stay where they are.
      cmake_path( ABSOLUTE_PATH folder BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}" NORMALIZE )
      set( OruQuarn_pc_${kind} "${folder}" )
   else()
      file( RELATIVE_PATH up "/${oruquarn_pc_dir}" "/${folder}" )
      string( REGEX REPLACE "/$" "" up "${up}" )
      set( OruQuarn_pc_${kind} "\${pcfiledir}/${up}" )
   endif()
endforeach()
foreach( package OruQuarn OruQuarn-testing )
   configure_file( cmake/${package}.pc.in ${PROJECT_BINARY_DIR}/${package}.pc @ONLY )
   install( FILES ${PROJECT_BINARY_DIR}/${package}.pc DESTINATION ${oruquarn_pc_dir} )
endforeach()
