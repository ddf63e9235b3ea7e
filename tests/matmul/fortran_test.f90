! A Fortran program as a client: every entry through the interface module, against the compiler's
! own MATMUL. Products of small whole numbers are exact.
program matmul_fortran_test
  use, intrinsic :: iso_c_binding
  use ksomd_matmul
  implicit none
  integer(c_int64_t), parameter :: m = 36, k = 41, n = 47, ldp = 50
  complex(c_double_complex) :: left(m, k), right(k, n)
  real :: re(m * k + k * n), im(m * k + k * n)
  call random_number(re)
  call random_number(im)
  left = reshape(cmplx(nint(9 * re) - 4, nint(9 * im) - 4), [m, k])
  right = reshape(cmplx(nint(9 * re(m * k + 1:)) - 4, nint(9 * im(m * k + 1:)) - 4), [k, n])

#define CHECK(routine, x, y, ldx, ldy) \
  p = 0; call routine(x, y, p, m, k, n, ldx, ldy, ldp); \
  if (any(p(:m, :) /= matmul(a, b)) .or. any(p(m + 1:, :) /= 0)) error stop 'routine'
#define CHECK_TYPE(number, n_n, t_n, n_t, t_t) \
  block; number :: a(m, k), b(k, n), p(ldp, n); a = left; b = right; \
  CHECK(n_n, a, b, m, k); CHECK(t_n, transpose(a), b, k, k); \
  CHECK(n_t, a, transpose(b), m, n); CHECK(t_t, transpose(a), transpose(b), k, n); end block
  CHECK_TYPE(real(c_float), matmul_r4_n_n, matmul_r4_t_n, matmul_r4_n_t, matmul_r4_t_t)
  CHECK_TYPE(real(c_double), matmul_r8_n_n, matmul_r8_t_n, matmul_r8_n_t, matmul_r8_t_t)
  CHECK_TYPE(complex(c_float), matmul_c4_n_n, matmul_c4_t_n, matmul_c4_n_t, matmul_c4_t_t)
  CHECK_TYPE(complex(c_double), matmul_c8_n_n, matmul_c8_t_n, matmul_c8_n_t, matmul_c8_t_t)
  print '(a)', 'The products of 16 entries are those of MATMUL'
end program
