# ksomd_trace_section(TARGET)
#   Gives a program or a shared library a trace section, so that a traceback through it shows
#   routine names, source files and lines. The target is linked twice: the line table of the first
#   image gives the trace section of the second.
function(ksomd_trace_section target)
  find_package(Python3 REQUIRED COMPONENTS Interpreter)
  set(tool ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/../tools/trace_section.py)
  target_compile_options(${target} PRIVATE -g1)
  set_target_properties(${target} PROPERTIES
    RULE_LAUNCH_LINK "${Python3_EXECUTABLE} ${tool} --prefix ${CMAKE_SOURCE_DIR}/ --link"
    LINK_DEPENDS ${tool})
endfunction()
