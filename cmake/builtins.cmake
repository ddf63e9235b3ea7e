# The 128-bit division and complex builtins come from the run-time of clang, whatever compiler builds
# this tree. Their objects are copied out of its archive. In the copies hidden symbols are made
# visible, and the math routines that they call are renamed to the library's own. Sets
# KSOMD_BUILTIN_OBJECTS.
set(routines divti3 udivti3 udivmodti4 muldc3 mulsc3 mulxc3 divdc3 divsc3 divxc3)
set(math fabs fabsf fmax fmaxf fmaxl copysign copysignf logb logbf logbl scalbn scalbnf scalbnl)

set(target_option "")
if(CMAKE_CXX_COMPILER_TARGET)
  set(target_option --target=${CMAKE_CXX_COMPILER_TARGET})
endif()
ksomd_llvm_tool(KSOMD_CLANG clang++)
ksomd_llvm_tool(KSOMD_OBJCOPY llvm-objcopy)
execute_process(COMMAND ${KSOMD_CLANG} ${target_option} -rtlib=compiler-rt -print-libgcc-file-name
  OUTPUT_VARIABLE archive OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
if(NOT EXISTS ${archive})
  message(FATAL_ERROR "${KSOMD_CLANG} has no builtins at ${archive}")
endif()
if(WIN32)
  set(suffix .c.obj)
else()
  set(suffix .c.o)
endif()

set(rename "")
foreach(name IN LISTS math)
  list(APPEND rename --redefine-sym=${name}=__libkso_${name})
endforeach()
set(KSOMD_BUILTIN_OBJECTS "")
set(directory ${CMAKE_CURRENT_BINARY_DIR}/builtins)
file(MAKE_DIRECTORY ${directory})
foreach(routine IN LISTS routines)
  set(options ${rename})
  if(NOT WIN32)
    list(APPEND options --set-symbol-visibility=__${routine}=default)
  endif()
  set(object ${directory}/${routine}${suffix})
  add_custom_command(OUTPUT ${object}
    COMMAND ${CMAKE_AR} x --output=${directory} ${archive} ${routine}${suffix}
    COMMAND ${KSOMD_OBJCOPY} ${options} ${object}
    DEPENDS ${archive} VERBATIM)
  set_source_files_properties(${object} PROPERTIES EXTERNAL_OBJECT ON GENERATED ON)
  list(APPEND KSOMD_BUILTIN_OBJECTS ${object})
endforeach()
