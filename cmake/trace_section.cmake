# ksomd_trace_section(TARGET)
#   Gives a program or a shared library a trace section, so that a traceback through it shows
#   routine names, source files and lines. The target is linked twice: the line table of the first
#   image gives the trace section of the second. Of debug information it has at least line tables:
#   options that ask for more count.
function(ksomd_trace_section target)
  find_package(Python3 REQUIRED COMPONENTS Interpreter)
  set(tool ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/../tools/trace_section.py)
  # The target's own options follow this one and so win; those of the configuration stand before it.
  get_target_property(options ${target} COMPILE_OPTIONS)
  if(NOT options)
    set(options "")
  endif()
  set(configurations "${CMAKE_CONFIGURATION_TYPES}")
  if(NOT configurations)
    set(configurations "${CMAKE_BUILD_TYPE}")
  endif()
  foreach(language C CXX Fortran ASM)
    foreach(configuration IN LISTS configurations ITEMS "")
      string(TOUPPER "${configuration}" upper)
      set(flags " ${CMAKE_${language}_FLAGS} ${CMAKE_${language}_FLAGS_${upper}} ")
      if(NOT flags MATCHES " -g([1-9d-y][^ ]*)? ")
        list(PREPEND options
          "$<$<AND:$<COMPILE_LANGUAGE:${language}>,$<CONFIG:${configuration}>>:-g1>")
      endif()
    endforeach()
  endforeach()
  set_target_properties(${target} PROPERTIES
    COMPILE_OPTIONS "${options}"
    RULE_LAUNCH_LINK
      "\"${Python3_EXECUTABLE}\" \"${tool}\" --prefix \"${CMAKE_SOURCE_DIR}/\" --link"
    LINK_DEPENDS ${tool})
endfunction()
