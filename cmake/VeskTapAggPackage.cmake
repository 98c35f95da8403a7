# What `cmake --install` puts in a prefix, and how other projects find it:
#   lib/        the three shared libraries, with their SOVERSION links
#   include/VeskTap/  the headers, laid out as clients include them ("VeskTapAgg/SwTable.h",
#               "types/TableRecords.h", "Asic/SwTableId.h", ...)
#   bin/        the vesktap* programs of tools/
#   share/man/man1/, share/bash-completion/  their man pages and completion (tools/CMakeLists.txt)
#   lib/cmake/VeskTapAgg/  find_package(VeskTapAgg): VeskTapAgg::SwTable, ::Types, ::Platform
#   lib/pkgconfig/vesktap.pc
#   lib/python3/dist-packages/  the Python module (python/CMakeLists.txt)
#   lib/systemd/system/  the systemd units of the tools (tools/CMakeLists.txt)
# Each install rule names its component, which is also its Debian package
# (VeskDebianPackages.cmake): library, dev, tools, python.
# The headers get a folder of their own because the layer folders (Asic/, types/, ...) are
# too generic to sit directly in a shared include directory.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(VESK_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/VeskTap)
set(VESK_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/VeskTapAgg)

# Library target -> the name clients use after the VeskTapAgg:: namespace. The aliases give
# a project that adds this tree as a subdirectory the same names as an installed package.
set(VESK_PACKAGE_LIBRARIES
  VeskPlatform Platform
  VeskTapAggTcamSwTblTypes Types
  VeskTapAggTcamSwTblSwTable SwTable)
set(VESK_PACKAGE_TARGETS "")
while(VESK_PACKAGE_LIBRARIES)
  list(POP_FRONT VESK_PACKAGE_LIBRARIES library exportName)
  set_target_properties(${library} PROPERTIES EXPORT_NAME ${exportName} INSTALL_RPATH "$ORIGIN")
  add_library(VeskTapAgg::${exportName} ALIAS ${library})
  list(APPEND VESK_PACKAGE_TARGETS ${library})
endwhile()

# INCLUDES names the include root for consumers whose CMake predates imported file sets.
install(TARGETS ${VESK_PACKAGE_TARGETS} EXPORT VeskTapAggTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT dev
  FILE_SET HEADERS DESTINATION ${VESK_INSTALL_INCLUDEDIR} COMPONENT dev
  INCLUDES DESTINATION ${VESK_INSTALL_INCLUDEDIR})

# Every executable named vesktap* under tools/ is a program users run; new ones are picked
# up without touching this file.
function(vesk_collect_tools dir outVar)
  get_directory_property(targets DIRECTORY ${dir} BUILDSYSTEM_TARGETS)
  get_directory_property(subdirs DIRECTORY ${dir} SUBDIRECTORIES)
  set(tools "")
  foreach(target IN LISTS targets)
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "EXECUTABLE" AND target MATCHES "^vesktap")
      list(APPEND tools ${target})
    endif()
  endforeach()
  foreach(subdir IN LISTS subdirs)
    vesk_collect_tools(${subdir} subTools)
    list(APPEND tools ${subTools})
  endforeach()
  set(${outVar} ${tools} PARENT_SCOPE)
endfunction()

vesk_collect_tools(${PROJECT_SOURCE_DIR}/tools VESK_TOOLS)
if(VESK_TOOLS)
  file(RELATIVE_PATH binToLib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(${VESK_TOOLS} PROPERTIES INSTALL_RPATH "$ORIGIN/${binToLib}")
  install(TARGETS ${VESK_TOOLS} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endif()
# The Python module finds the libraries from its dist-packages directory the same way.
if(TARGET vesktap_python)
  cmake_path(ABSOLUTE_PATH VESK_INSTALL_PYTHONDIR BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}
             OUTPUT_VARIABLE pythonDir)
  file(RELATIVE_PATH pythonToLib ${pythonDir} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(vesktap_python PROPERTIES INSTALL_RPATH "$ORIGIN/${pythonToLib}")
endif()

install(EXPORT VeskTapAggTargets NAMESPACE VeskTapAgg:: DESTINATION ${VESK_INSTALL_CMAKEDIR}
  COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/VeskTapAggConfig.cmake.in
  ${PROJECT_BINARY_DIR}/VeskTapAggConfig.cmake INSTALL_DESTINATION ${VESK_INSTALL_CMAKEDIR})
# Compatibility follows the libraries' SOVERSION, which is the major version.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VeskTapAggConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VeskTapAggConfig.cmake
  ${PROJECT_BINARY_DIR}/VeskTapAggConfigVersion.cmake DESTINATION ${VESK_INSTALL_CMAKEDIR}
  COMPONENT dev)

# The .pc file locates the prefix from its own place, so that the installed tree can be
# moved (or installed with `cmake --install --prefix`) and still describes itself; absolute
# install directories are written as they are.
set(VESK_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR} OR IS_ABSOLUTE ${CMAKE_INSTALL_INCLUDEDIR})
  set(VESK_PC_PREFIX ${CMAKE_INSTALL_PREFIX})
  set(VESK_PC_LIBDIR ${CMAKE_INSTALL_FULL_LIBDIR})
  set(VESK_PC_INCLUDEDIR ${CMAKE_INSTALL_FULL_INCLUDEDIR}/VeskTap)
else()
  file(RELATIVE_PATH pcToPrefix ${CMAKE_INSTALL_PREFIX}/${VESK_PKGCONFIG_DIR} ${CMAKE_INSTALL_PREFIX})
  string(REGEX REPLACE "/$" "" pcToPrefix ${pcToPrefix})
  set(VESK_PC_PREFIX "\${pcfiledir}/${pcToPrefix}")
  set(VESK_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
  set(VESK_PC_INCLUDEDIR "\${prefix}/${VESK_INSTALL_INCLUDEDIR}")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/vesktap.pc.in ${PROJECT_BINARY_DIR}/vesktap.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vesktap.pc DESTINATION ${VESK_PKGCONFIG_DIR} COMPONENT dev)
