# What `cmake --install` lays out, where the usual directories are not named otherwise (see CMake's
# GNUInstallDirs; some systems have lib64 in the place of lib):
#
#   include/ksomd/            the headers, the Fortran module and the export list
#   bin/libksomd.dll          lib/libksomd.dll.a  lib/libksomd.a      on Windows
#   lib/libksomd.so[.N]       lib/libksomd.a                          on Linux
#   lib/libksomd_unwind.so    lib/libksomd_unwind.a                   what the archive needs there
#   lib/cmake/ksomd/          find_package(ksomd): ksomd::shared and ksomd::static
#   lib/pkgconfig/ksomd.pc    pkg-config ksomd
#   bin/ksomd-info            what the library finds on a processor, and its manual page in share/man
#   share/doc/ksomd/          licence and documents, as they lie in the source tree
include(CMakePackageConfigHelpers)

install(TARGETS ksomd_shared ksomd_static EXPORT ksomd
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${CMAKE_SOURCE_DIR}/include/ksomd DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES LICENSE README.md CONTRIBUTING.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR})
if(EXISTS ${CMAKE_SOURCE_DIR}/docs)
  install(DIRECTORY ${CMAKE_SOURCE_DIR}/docs DESTINATION ${CMAKE_INSTALL_DOCDIR})
endif()

set(package_directory ${CMAKE_INSTALL_LIBDIR}/cmake/ksomd)
install(EXPORT ksomd NAMESPACE ksomd:: DESTINATION ${package_directory} FILE ksomdTargets.cmake)
set(KSOMD_FORTRAN_SOURCES ${CMAKE_INSTALL_INCLUDEDIR}/ksomd/matmul.f90)
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/ksomdConfig.cmake.in ksomdConfig.cmake
  INSTALL_DESTINATION ${package_directory} PATH_VARS KSOMD_FORTRAN_SOURCES)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/ksomdConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ksomdConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/ksomdConfigVersion.cmake DESTINATION ${package_directory})

if(WIN32)
  set(KSOMD_PRIVATE_LIBS -limagehlp)
else()
  set(KSOMD_PRIVATE_LIBS -lksomd_unwind)
  install(FILES ${CMAKE_BINARY_DIR}/libksomd_unwind.a ${CMAKE_BINARY_DIR}/libksomd_unwind.so
    DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()
# An absolute directory stays what it is; the others move with the prefix.
file(RELATIVE_PATH KSOMD_PC_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" KSOMD_PC_PREFIX ${KSOMD_PC_PREFIX})
foreach(directory LIBDIR INCLUDEDIR)
  set(KSOMD_PC_${directory} "\${prefix}")
  cmake_path(APPEND KSOMD_PC_${directory} ${CMAKE_INSTALL_${directory}})
endforeach()
configure_file(${CMAKE_SOURCE_DIR}/cmake/ksomd.pc.in ksomd.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ksomd.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
