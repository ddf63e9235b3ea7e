! The Fortran compiler's MATMUL, for the benchmark. PEER is the prefix of the routines' names.
module matmul_peer
  use, intrinsic :: iso_c_binding
  implicit none
contains

  subroutine matmul_r4(a, b, p, n, layout) bind(c, name=PEER//"_r4")
    integer(c_int), intent(in) :: n, layout
    real(c_float), intent(in) :: a(n, n), b(n, n)
    real(c_float), intent(out) :: p(n, n)
    select case (layout)
    case (0)
      p = matmul(a, b)
    case (1)
      p = matmul(transpose(a), b)
    case (2)
      p = matmul(a, transpose(b))
    case default
      p = matmul(transpose(a), transpose(b))
    end select
  end subroutine

  subroutine matmul_r8(a, b, p, n, layout) bind(c, name=PEER//"_r8")
    integer(c_int), intent(in) :: n, layout
    real(c_double), intent(in) :: a(n, n), b(n, n)
    real(c_double), intent(out) :: p(n, n)
    select case (layout)
    case (0)
      p = matmul(a, b)
    case (1)
      p = matmul(transpose(a), b)
    case (2)
      p = matmul(a, transpose(b))
    case default
      p = matmul(transpose(a), transpose(b))
    end select
  end subroutine

  subroutine matmul_c4(a, b, p, n, layout) bind(c, name=PEER//"_c4")
    integer(c_int), intent(in) :: n, layout
    complex(c_float_complex), intent(in) :: a(n, n), b(n, n)
    complex(c_float_complex), intent(out) :: p(n, n)
    select case (layout)
    case (0)
      p = matmul(a, b)
    case (1)
      p = matmul(transpose(a), b)
    case (2)
      p = matmul(a, transpose(b))
    case default
      p = matmul(transpose(a), transpose(b))
    end select
  end subroutine

  subroutine matmul_c8(a, b, p, n, layout) bind(c, name=PEER//"_c8")
    integer(c_int), intent(in) :: n, layout
    complex(c_double_complex), intent(in) :: a(n, n), b(n, n)
    complex(c_double_complex), intent(out) :: p(n, n)
    select case (layout)
    case (0)
      p = matmul(a, b)
    case (1)
      p = matmul(transpose(a), b)
    case (2)
      p = matmul(a, transpose(b))
    case default
      p = matmul(transpose(a), transpose(b))
    end select
  end subroutine
end module
