# The headers a client of the installed libraries includes: the API headers below and
# every project header they include, found by following their quoted #includes. Only
# these are installed; the rest (the algorithms' -defs.h, the collections' internals) stay
# private to the build. vesk_public_headers(<var> <header>...) keeps those of the given
# absolute paths that are public. Computed at configure time: an #include added to a public
# header reaches the install set at the next configure (a fresh build always has it; the
# package test builds a client of every API header against the installed tree).

set(VESK_API_HEADERS
  VeskTapAgg/SwTable.h VeskTapAgg/Interface.h VeskTapAgg/EntryLog.h VeskTapAgg/Catalogue.h
  types/TableTypes.h types/TableShards.h Kest/ModuleInspectData.h)
set(VESK_INCLUDE_ROOTS ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/platform)

function(vesk_resolve_include name outVar)
  foreach(root IN LISTS VESK_INCLUDE_ROOTS)
    if(EXISTS ${root}/${name})
      set(${outVar} ${root}/${name} PARENT_SCOPE)
      return()
    endif()
  endforeach()
  set(${outVar} "" PARENT_SCOPE)
endfunction()

set(pending "")
foreach(api IN LISTS VESK_API_HEADERS)
  vesk_resolve_include(${api} path)
  if(NOT path)
    message(FATAL_ERROR "API header ${api} not found")
  endif()
  list(APPEND pending ${path})
endforeach()
set(VESK_PUBLIC_HEADER_CLOSURE "")
while(pending)
  list(POP_FRONT pending header)
  if(header IN_LIST VESK_PUBLIC_HEADER_CLOSURE)
    continue()
  endif()
  list(APPEND VESK_PUBLIC_HEADER_CLOSURE ${header})
  file(STRINGS ${header} includes REGEX "^#include \"[^\"]+\"")
  foreach(line IN LISTS includes)
    string(REGEX REPLACE "^#include \"([^\"]+)\".*" "\\1" name "${line}")
    vesk_resolve_include(${name} path)
    if(path)
      list(APPEND pending ${path})
    endif()
  endforeach()
endwhile()

function(vesk_public_headers outVar)
  set(kept "")
  foreach(header IN LISTS ARGN)
    if(header IN_LIST VESK_PUBLIC_HEADER_CLOSURE)
      list(APPEND kept ${header})
    endif()
  endforeach()
  set(${outVar} ${kept} PARENT_SCOPE)
endfunction()
