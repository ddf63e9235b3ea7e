! A Fortran program that uses an installed ksomd.
program client
  use, intrinsic :: iso_c_binding, only: c_double, c_int64_t
  use ksomd_matmul, only: matmul_r8_n_t
  implicit none
  integer(c_int64_t), parameter :: m = 7, k = 5, n = 3
  real(c_double) :: a(m, k), b(n, k), p(m, n)
  integer :: i

  a = reshape([(real(i, c_double), i = 1, size(a))], shape(a))
  b = reshape([(real(-i, c_double), i = 1, size(b))], shape(b))
  call matmul_r8_n_t(a, b, p, m, k, n, m, n, m)
  if (any(nint(p) /= nint(matmul(a, transpose(b))))) error stop "wrong product"
end program
