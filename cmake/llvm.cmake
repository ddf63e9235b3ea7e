# ksomd_llvm_tool(VARIABLE NAME)
#   Finds a tool of LLVM, best that of the version that builds the products.
macro(ksomd_llvm_tool variable name)
  find_program(${variable} REQUIRED
    NAMES ${name}-22 ${name} ${name}-23 ${name}-21 ${name}-20 ${name}-19)
endmacro()
