# ksomd_trace_section(TARGET)
#   Gives a program or a shared library a trace section, so that a traceback through it shows
#   routine names, source files and lines. The target is linked twice: the line table of the first
#   image gives the trace section of the second.
find_package(Python3 REQUIRED COMPONENTS Interpreter)
set(KSOMD_TRACE_SECTION_TOOL ${CMAKE_CURRENT_LIST_DIR}/../tools/trace_section.py)

function(ksomd_trace_section target)
  target_compile_options(${target} PRIVATE -gline-tables-only)
  set_target_properties(${target} PROPERTIES
    RULE_LAUNCH_LINK
      "${Python3_EXECUTABLE} ${KSOMD_TRACE_SECTION_TOOL} --prefix ${CMAKE_SOURCE_DIR}/ --link"
    LINK_DEPENDS ${KSOMD_TRACE_SECTION_TOOL})
endfunction()
