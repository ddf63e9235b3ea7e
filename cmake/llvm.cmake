# ksomd_llvm_tool(VARIABLE NAME)
#   Finds a tool of LLVM: of the version that the products are made with, or else any.
macro(ksomd_llvm_tool variable name)
  find_program(${variable} NAMES ${name}-22 ${name} ${name}-23 ${name}-21 ${name}-20 ${name}-19 REQUIRED)
endmacro()
