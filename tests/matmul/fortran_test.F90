! A Fortran program as a client: every entry through the interface module, against the compiler's
! own MATMUL within an error bound.
module matmul_checks
  use, intrinsic :: iso_c_binding
  use ksomd_matmul
  implicit none
  integer :: failures = 0, products = 0

contains

#define CODE r4
#define NUMBER real(c_float)
#define KIND c_float
#define MAKE(re, im) (re)
#include "fortran_checks.inc"
#define CODE r8
#define NUMBER real(c_double)
#define KIND c_double
#define MAKE(re, im) (re)
#include "fortran_checks.inc"
#define CODE c4
#define NUMBER complex(c_float_complex)
#define KIND c_float
#define MAKE(re, im) cmplx(re, im, c_float)
#include "fortran_checks.inc"
#define CODE c8
#define NUMBER complex(c_double_complex)
#define KIND c_double
#define MAKE(re, im) cmplx(re, im, c_double)
#include "fortran_checks.inc"

end module

program matmul_fortran_test
  use matmul_checks
  implicit none
  integer, parameter :: shapes(3, 7) = reshape([1, 1, 1, 3, 2, 5, 17, 19, 23, 34, 38, 38, &
                                                64, 64, 64, 129, 70, 131, 261, 45, 230], [3, 7])
  integer :: s

  do s = 1, size(shapes, 2)
    call check_r4(shapes(1, s), shapes(2, s), shapes(3, s))
    call check_r8(shapes(1, s), shapes(2, s), shapes(3, s))
    call check_c4(shapes(1, s), shapes(2, s), shapes(3, s))
    call check_c8(shapes(1, s), shapes(2, s), shapes(3, s))
  end do
  print '(i0, a, i0, a)', products, ' products compared, ', failures, ' outside the bound'
  if (failures /= 0 .or. products /= 16 * size(shapes, 2)) error stop
end program
