# cmake -P driver of package.installedClient; see CMakeLists.txt next to it.
cmake_minimum_required(VERSION 3.25)

# Runs a command and fails the test with its output when it fails; the output is returned.
function(run outVar)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    list(JOIN ARGN " " command)
    message(FATAL_ERROR "failed (${rc}): ${command}\n${out}\n${err}")
  endif()
  set(${outVar} "${out}" PARENT_SCOPE)
endfunction()

function(expectContains text expected what)
  string(FIND "${text}" "${expected}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "${what}: expected \"${expected}\" in:\n${text}")
  endif()
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
run(installLog ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# Only what a client includes is installed: no algorithm bodies, no collection internals.
file(GLOB_RECURSE installedHeaders RELATIVE ${prefix}/include/VeskTap ${prefix}/include/VeskTap/*.h)
foreach(private IN ITEMS VeskTapAgg/TableSwTable-defs.h KestShard/Atomics.h VeskTapAgg/WriterMount.h)
  if(private IN_LIST installedHeaders)
    message(FATAL_ERROR "private header ${private} was installed")
  endif()
endforeach()
expectContains("${installedHeaders}" "VeskTapAgg/SwTable.h" "installed headers")

# The client through find_package(VeskTapAgg).
set(clientBuild ${WORK_DIR}/client-cmake)
run(configureLog ${CMAKE_COMMAND} -S ${CLIENT_SOURCE_DIR} -B ${clientBuild} -G ${GENERATOR}
  -D CMAKE_CXX_COMPILER=${CXX} "-DCMAKE_CXX_FLAGS=${CLIENT_FLAGS}"
  -D CMAKE_PREFIX_PATH=${prefix} -D CMAKE_FIND_USE_PACKAGE_REGISTRY=OFF)
file(STRINGS ${clientBuild}/CMakeCache.txt packageDir REGEX "^VeskTapAgg_DIR:")
expectContains("${packageDir}" "${prefix}/${LIBDIR}/cmake/VeskTapAgg" "package found")
run(buildLog ${CMAKE_COMMAND} --build ${clientBuild})
run(cmakeClientOut ${clientBuild}/vesktap-client)
expectContains("${cmakeClientOut}" "DefaultFwdTcamEntry 1c:08:0402\n" "client output")
expectContains("${cmakeClientOut}" "key: " "client output")
expectContains("${cmakeClientOut}" "table types: 10, mismatches: 0\n" "client output")

# The same client through pkg-config; the libraries are found through LD_LIBRARY_PATH, as a
# Makefile user would run it.
set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
run(pkgFlags ${PKG_CONFIG} --cflags --libs vesktap)
separate_arguments(pkgFlags UNIX_COMMAND "${pkgFlags}")
separate_arguments(clientFlags UNIX_COMMAND "${CLIENT_FLAGS}")
set(pkgClient ${WORK_DIR}/client-pkgconfig)
run(compileLog ${CXX} -std=c++20 ${clientFlags} ${CLIENT_SOURCE_DIR}/main.cpp ${pkgFlags}
  -o ${pkgClient})
run(pkgClientOut ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${prefix}/${LIBDIR} ${pkgClient})
if(NOT pkgClientOut STREQUAL cmakeClientOut)
  message(FATAL_ERROR "pkg-config client printed:\n${pkgClientOut}\nCMake client:\n${cmakeClientOut}")
endif()

# An installed tool runs from the prefix without help: its RPATH finds the libraries.
run(toolOut ${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH
  ${prefix}/${BINDIR}/vesktap demo --units 1 --keys 100 --changes 2000)
expectContains("${toolOut}" "demo: everything agrees" "installed vesktap demo")

# With the tools come their man pages (when help2man was there to make them) and the bash
# completion.
if(HELP2MAN)
  foreach(page IN ITEMS vesktap vesktap-demo vesktap-agent vesktap-hw vesktap-show)
    if(NOT EXISTS ${prefix}/share/man/man1/${page}.1)
      message(FATAL_ERROR "man page ${page}.1 was not installed")
    endif()
  endforeach()
endif()
if(NOT EXISTS ${prefix}/share/bash-completion/completions/vesktap)
  message(FATAL_ERROR "the bash completion was not installed")
endif()
file(REMOVE_RECURSE ${WORK_DIR})
