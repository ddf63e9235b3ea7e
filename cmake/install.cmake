# What `cmake --install` lays out:
#
#   include/ksomd/            the headers, the Fortran module and the export list
#   bin/libksomd.dll          lib/libksomd.dll.a  lib/libksomd.a      on Windows
#   lib/libksomd.so[.N]       lib/libksomd.a                          on Linux
#   lib/cmake/ksomd/          find_package(ksomd): ksomd::shared and ksomd::static
#   lib/pkgconfig/ksomd.pc    pkg-config ksomd
#   bin/ksomd-info            what the library finds on a processor, and its manual page in share/man
#   share/doc/ksomd/          licence and documents
include(CMakePackageConfigHelpers)

install(TARGETS ksomd_shared ksomd_static EXPORT ksomd
  RUNTIME DESTINATION bin LIBRARY DESTINATION lib ARCHIVE DESTINATION lib)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/include/ksomd DESTINATION include)
install(FILES ${CMAKE_SOURCE_DIR}/LICENSE ${CMAKE_SOURCE_DIR}/README.md DESTINATION share/doc/ksomd)
if(EXISTS ${CMAKE_SOURCE_DIR}/docs)
  install(DIRECTORY ${CMAKE_SOURCE_DIR}/docs/ DESTINATION share/doc/ksomd)
endif()

install(EXPORT ksomd NAMESPACE ksomd:: DESTINATION lib/cmake/ksomd FILE ksomdTargets.cmake)
set(KSOMD_FORTRAN_SOURCES include/ksomd/matmul.f90)
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/ksomdConfig.cmake.in ksomdConfig.cmake
  INSTALL_DESTINATION lib/cmake/ksomd PATH_VARS KSOMD_FORTRAN_SOURCES)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/ksomdConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ksomdConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/ksomdConfigVersion.cmake DESTINATION lib/cmake/ksomd)

if(WIN32)
  set(KSOMD_PRIVATE_LIBS "-limagehlp")
else()
  set(KSOMD_PRIVATE_LIBS "-lunwind -llzma")
endif()
configure_file(${CMAKE_SOURCE_DIR}/cmake/ksomd.pc.in ksomd.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ksomd.pc DESTINATION lib/pkgconfig)
