# Debian packages of this build, made by CPack: `cpack -G DEB` in the build directory, or
# the `package` target. One package per install component (VeskTapAggPackage.cmake), all
# installing under /usr:
#   library  libvesktap<major>  the shared libraries (/usr/lib)
#   dev      libvesktap-dev     headers, CMake package, pkg-config file, the libraries' links
#   tools    vesktap            the program, its man pages, bash completion and systemd units
#   python   python3-vesktap    the module, in /usr/lib/python3/dist-packages
# The program and the module are built against the library's internals, not only against
# its client API, so every package wants the library of its own version exactly. The
# dependencies on Debian's libraries come from dpkg-shlibdeps.
set(VESK_DEBIAN_MAINTAINER "VeskTap maintainers <maintainers@vesktap.invalid>" CACHE STRING
    "Maintainer field of the Debian packages")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vesktap)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL library dev tools)
if(TARGET vesktap_python)
  list(APPEND CPACK_COMPONENTS_ALL python)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${VESK_DEBIAN_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The program and the module need the project's own libraries, which are in another
# package: dpkg-shlibdeps finds them in the build tree, and the Depends below name them.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "")
foreach(library IN ITEMS VeskPlatform VeskTapAggTcamSwTblTypes VeskTapAggTcamSwTblSwTable)
  get_target_property(libraryDir ${library} BINARY_DIR)
  list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${libraryDir})
endforeach()

set(libraryPackage libvesktap${PROJECT_VERSION_MAJOR})
set(sameLibrary "${libraryPackage} (= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${libraryPackage})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION
    "software tables of a switch's TCAMs, in shared memory
The libraries a switch agent loads to keep, for every hardware unit, the
entries of the ten TCAM table types of the tap-aggregation feature. Committed
entries live in shared memory and are served again, unchanged, after the agent
restarts.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libvesktap-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${sameLibrary}, libfmt-dev (>= 9.1)")
set(CPACK_DEBIAN_DEV_DESCRIPTION
    "software tables of a switch's TCAMs - development files
The headers of the client API (under /usr/include/VeskTap), the CMake package
(find_package(VeskTapAgg)) and the pkg-config file (vesktap) to build an
agent against the VeskTap libraries.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME vesktap)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS ${sameLibrary})
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
    "software tables of a switch's TCAMs - agent, hardware side and tools
The vesktap program: an agent that keeps the tables of its units in shared
memory, a hardware side that applies their changes to simulated TCAMs, an
end-to-end demo and a viewer of what the shared memory holds. With man pages,
bash completion and systemd units for the hardware side and an agent.")

if(TARGET vesktap_python)
  get_directory_property(pythonMinor DIRECTORY ${PROJECT_SOURCE_DIR}/python
                         DEFINITION Python3_VERSION_MINOR)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-vesktap)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
  # The module is built for one Python version (its file name says which).
  math(EXPR nextMinor "${pythonMinor} + 1")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
      "${sameLibrary}, python3 (>= 3.${pythonMinor}), python3 (<< 3.${nextMinor})")
  set(CPACK_DEBIAN_PYTHON_DESCRIPTION
      "software tables of a switch's TCAMs - Python module
The module vesktap for Python 3: reads what an agent's shared memory holds
without changing it, and drives tables in its own process.")
endif()

include(CPack)
