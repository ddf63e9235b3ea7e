# The module-definition file is the one list of exported names and aliases, for both targets.
# The Windows linker reads it as it is. For ELF this derives from it, at configure time,
#   exports.version   the version script: every exported name global, everything else local
#   aliases.rsp       --defsym options, one for each "name = target"
# and, for the Windows static archive, aliases.S with a weak alias for each of those.
set(KSOMD_DEF ${CMAKE_SOURCE_DIR}/include/ksomd/libksomd.def)
set_property(DIRECTORY ${CMAKE_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${KSOMD_DEF})

function(ksomd_derive_exports)
  file(STRINGS ${KSOMD_DEF} lines)
  set(names "")
  set(defsyms "")
  set(weak_aliases "")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE ";.*$" "" line "${line}")
    string(STRIP "${line}" line)
    if(line MATCHES "^(LIBRARY|EXPORTS|$)")
      continue()
    elseif(line MATCHES "^([A-Za-z0-9_.]+)( DATA)?$")
      string(APPEND names "    \"${CMAKE_MATCH_1}\";\n")
    elseif(line MATCHES "^([A-Za-z0-9_.]+) = ([A-Za-z0-9_.]+)$")
      string(APPEND names "    \"${CMAKE_MATCH_1}\";\n")
      string(APPEND defsyms "--defsym=${CMAKE_MATCH_1}=${CMAKE_MATCH_2}\n")
      string(APPEND weak_aliases ".weak \"${CMAKE_MATCH_1}\"\n.set \"${CMAKE_MATCH_1}\", \"${CMAKE_MATCH_2}\"\n")
    else()
      message(FATAL_ERROR "${KSOMD_DEF}: not understood: ${line}")
    endif()
  endforeach()
  file(CONFIGURE OUTPUT exports.version CONTENT "{\n  global:\n${names}  local: *;\n};\n" @ONLY)
  file(CONFIGURE OUTPUT aliases.rsp CONTENT "${defsyms}" @ONLY)
  file(CONFIGURE OUTPUT aliases.S CONTENT "${weak_aliases}" @ONLY)
endfunction()

ksomd_derive_exports()
set(KSOMD_VERSION_SCRIPT ${CMAKE_CURRENT_BINARY_DIR}/exports.version)
set(KSOMD_ALIASES_RSP ${CMAKE_CURRENT_BINARY_DIR}/aliases.rsp)
set(KSOMD_ALIASES_ASM ${CMAKE_CURRENT_BINARY_DIR}/aliases.S)
