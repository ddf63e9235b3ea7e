! A Fortran program as a client: every entry through the interface module, against the compiler's
! own MATMUL within an error bound.
module matmul_checks
  use, intrinsic :: iso_c_binding
  use ksomd_matmul
  implicit none
  integer :: failures = 0, products = 0

contains

  subroutine judge(name, worst, m, n, k)
    character(*), intent(in) :: name
    real(c_double), intent(in) :: worst
    integer, intent(in) :: m, n, k
    products = products + 1
    ! Not "greater than": a NaN must not pass.
    if (.not. worst <= 1) then
      failures = failures + 1
      print *, name, m, n, k, ' error over bound: ', worst
    end if
  end subroutine

  subroutine check_r4(m, n, k)
    integer, intent(in) :: m, n, k
    real(c_float) :: a(m, k), b(k, n), p(m + 3, n), at(k, m), bt(n, k)
    real(c_float) :: bound(m, n)
    real(c_float) :: part_a(m, k), part_b(k, n)
    integer(c_int64_t) :: m8, n8, k8, ldp
    call random_number(part_a)
    call random_number(part_b)
    a = part_a - 0.5
    b = part_b - 0.5
    at = transpose(a)
    bt = transpose(b)
    m8 = m; n8 = n; k8 = k; ldp = m + 3
    ! Two sums of k rounded products: each is off by at most about k * epsilon of the sum of
    ! magnitudes; complex products add a few roundings of their own.
    bound = 2 * (k + 1) * epsilon(bound) * matmul(abs(a), abs(b)) + tiny(bound)
    p = 0; call matmul_r4_n_n(a, b, p, m8, k8, n8, m8, k8, ldp); call compare('r4_n_n')
    p = 0; call matmul_r4_t_n(at, b, p, m8, k8, n8, k8, k8, ldp); call compare('r4_t_n')
    p = 0; call matmul_r4_n_t(a, bt, p, m8, k8, n8, m8, n8, ldp); call compare('r4_n_t')
    p = 0; call matmul_r4_t_t(at, bt, p, m8, k8, n8, k8, n8, ldp); call compare('r4_t_t')
  contains
    subroutine compare(name)
      character(*), intent(in) :: name
      call judge(name, real(maxval(abs(p(1:m, :) - matmul(a, b)) / bound), c_double), m, n, k)
    end subroutine
  end subroutine

  subroutine check_r8(m, n, k)
    integer, intent(in) :: m, n, k
    real(c_double) :: a(m, k), b(k, n), p(m + 3, n), at(k, m), bt(n, k)
    real(c_double) :: bound(m, n)
    real(c_double) :: part_a(m, k), part_b(k, n)
    integer(c_int64_t) :: m8, n8, k8, ldp
    call random_number(part_a)
    call random_number(part_b)
    a = part_a - 0.5
    b = part_b - 0.5
    at = transpose(a)
    bt = transpose(b)
    m8 = m; n8 = n; k8 = k; ldp = m + 3
    ! Two sums of k rounded products: each is off by at most about k * epsilon of the sum of
    ! magnitudes; complex products add a few roundings of their own.
    bound = 2 * (k + 1) * epsilon(bound) * matmul(abs(a), abs(b)) + tiny(bound)
    p = 0; call matmul_r8_n_n(a, b, p, m8, k8, n8, m8, k8, ldp); call compare('r8_n_n')
    p = 0; call matmul_r8_t_n(at, b, p, m8, k8, n8, k8, k8, ldp); call compare('r8_t_n')
    p = 0; call matmul_r8_n_t(a, bt, p, m8, k8, n8, m8, n8, ldp); call compare('r8_n_t')
    p = 0; call matmul_r8_t_t(at, bt, p, m8, k8, n8, k8, n8, ldp); call compare('r8_t_t')
  contains
    subroutine compare(name)
      character(*), intent(in) :: name
      call judge(name, real(maxval(abs(p(1:m, :) - matmul(a, b)) / bound), c_double), m, n, k)
    end subroutine
  end subroutine

  subroutine check_c4(m, n, k)
    integer, intent(in) :: m, n, k
    complex(c_float_complex) :: a(m, k), b(k, n), p(m + 3, n), at(k, m), bt(n, k)
    real(c_float) :: bound(m, n)
    real(c_float) :: part_a(m, k), part_b(k, n)
    integer(c_int64_t) :: m8, n8, k8, ldp
    call random_number(part_a)
    call random_number(part_b)
    a = cmplx(part_a - 0.5, part_a * part_a, c_float)
    b = cmplx(part_b * part_b, part_b - 0.5, c_float)
    at = transpose(a)
    bt = transpose(b)
    m8 = m; n8 = n; k8 = k; ldp = m + 3
    ! Two sums of k rounded products: each is off by at most about k * epsilon of the sum of
    ! magnitudes; complex products add a few roundings of their own.
    bound = 8 * (k + 1) * epsilon(bound) * matmul(abs(a), abs(b)) + tiny(bound)
    p = 0; call matmul_c4_n_n(a, b, p, m8, k8, n8, m8, k8, ldp); call compare('c4_n_n')
    p = 0; call matmul_c4_t_n(at, b, p, m8, k8, n8, k8, k8, ldp); call compare('c4_t_n')
    p = 0; call matmul_c4_n_t(a, bt, p, m8, k8, n8, m8, n8, ldp); call compare('c4_n_t')
    p = 0; call matmul_c4_t_t(at, bt, p, m8, k8, n8, k8, n8, ldp); call compare('c4_t_t')
  contains
    subroutine compare(name)
      character(*), intent(in) :: name
      call judge(name, real(maxval(abs(p(1:m, :) - matmul(a, b)) / bound), c_double), m, n, k)
    end subroutine
  end subroutine

  subroutine check_c8(m, n, k)
    integer, intent(in) :: m, n, k
    complex(c_double_complex) :: a(m, k), b(k, n), p(m + 3, n), at(k, m), bt(n, k)
    real(c_double) :: bound(m, n)
    real(c_double) :: part_a(m, k), part_b(k, n)
    integer(c_int64_t) :: m8, n8, k8, ldp
    call random_number(part_a)
    call random_number(part_b)
    a = cmplx(part_a - 0.5, part_a * part_a, c_double)
    b = cmplx(part_b * part_b, part_b - 0.5, c_double)
    at = transpose(a)
    bt = transpose(b)
    m8 = m; n8 = n; k8 = k; ldp = m + 3
    ! Two sums of k rounded products: each is off by at most about k * epsilon of the sum of
    ! magnitudes; complex products add a few roundings of their own.
    bound = 8 * (k + 1) * epsilon(bound) * matmul(abs(a), abs(b)) + tiny(bound)
    p = 0; call matmul_c8_n_n(a, b, p, m8, k8, n8, m8, k8, ldp); call compare('c8_n_n')
    p = 0; call matmul_c8_t_n(at, b, p, m8, k8, n8, k8, k8, ldp); call compare('c8_t_n')
    p = 0; call matmul_c8_n_t(a, bt, p, m8, k8, n8, m8, n8, ldp); call compare('c8_n_t')
    p = 0; call matmul_c8_t_t(at, bt, p, m8, k8, n8, k8, n8, ldp); call compare('c8_t_t')
  contains
    subroutine compare(name)
      character(*), intent(in) :: name
      call judge(name, real(maxval(abs(p(1:m, :) - matmul(a, b)) / bound), c_double), m, n, k)
    end subroutine
  end subroutine
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
