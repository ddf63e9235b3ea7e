! Matrix products: the entries of <ksomd/matmul.h> for Fortran programs.
!
!   call matmul_r8_n_n(a, b, p, m, k, n, lda, ldb, ldp)     p = op(a) * op(b)
!
! op(a) is m x k, op(b) is k x n, p is m x n and overwritten; the letters say whether a and b are
! stored as they are (n) or transposed (t), without conjugation. Leading dimensions count elements.
! Arrays are passed without a copy if they are contiguous; p overlaps neither operand. Extents must
! not be negative. The library computes each product and each sum rounded by itself, in an order
! that is the same on every processor.
module ksomd_matmul
  use, intrinsic :: iso_c_binding, only: c_float, c_double, c_float_complex, c_double_complex, &
                                         c_int64_t
  implicit none
  private
  public :: matmul_r4_n_n, matmul_r4_t_n, matmul_r4_n_t, matmul_r4_t_t
  public :: matmul_r8_n_n, matmul_r8_t_n, matmul_r8_n_t, matmul_r8_t_t
  public :: matmul_c4_n_n, matmul_c4_t_n, matmul_c4_n_t, matmul_c4_t_t
  public :: matmul_c8_n_n, matmul_c8_t_n, matmul_c8_n_t, matmul_c8_t_t

  interface
    subroutine matmul_r4_n_n(a, b, p, m, k, n, lda, ldb, ldp) &
        bind(c, name="_MATMUL_r4_n_n")
      import
      real(c_float), intent(in) :: a(*), b(*)
      real(c_float), intent(inout) :: p(*)
      integer(c_int64_t), value :: m, k, n, lda, ldb, ldp
    end subroutine
    subroutine matmul_r4_t_n(a, b, p, m, k, n, lda, ldb, ldp) &
        bind(c, name="_MATMUL_r4_t_n")
      import
      real(c_float), intent(in) :: a(*), b(*)
      real(c_float), intent(inout) :: p(*)
      integer(c_int64_t), value :: m, k, n, lda, ldb, ldp
    end subroutine
    subroutine matmul_r4_n_t(a, b, p, m, k, n, lda, ldb, ldp) &
        bind(c, name="_MATMUL_r4_n_t")
      import
      real(c_float), intent(in) :: a(*), b(*)
      real(c_float), intent(inout) :: p(*)
      integer(c_int64_t), value :: m, k, n, lda, ldb, ldp
    end subroutine
    subroutine matmul_r4_t_t(a, b, p, m, k, n, lda, ldb, ldp) &
        bind(c, name="_MATMUL_r4_t_t")
      import
      real(c_float), intent(in) :: a(*), b(*)
      real(c_float), intent(inout) :: p(*)
      integer(c_int64_t), value :: m, k, n, lda, ldb, ldp
    end subroutine
    subroutine matmul_r8_n_n(a, b, p, m, k, n, lda, ldb, ldp) &
        bind(c, name="_MATMUL_r8_n_n")
      import
      real(c_double), intent(in) :: a(*), b(*)
      real(c_double), intent(inout) :: p(*)
      integer(c_int64_t), value :: m, k, n, lda, ldb, ldp
    end subroutine
    subroutine matmul_r8_t_n(a, b, p, m, k, n, lda, ldb, ldp) &
        bind(c, name="_MATMUL_r8_t_n")
      import
      real(c_double), intent(in) :: a(*), b(*)
      real(c_double), intent(inout) :: p(*)
      integer(c_int64_t), value :: m, k, n, lda, ldb, ldp
    end subroutine
    subroutine matmul_r8_n_t(a, b, p, m, k, n, lda, ldb, ldp) &
        bind(c, name="_MATMUL_r8_n_t")
      import
      real(c_double), intent(in) :: a(*), b(*)
      real(c_double), intent(inout) :: p(*)
      integer(c_int64_t), value :: m, k, n, lda, ldb, ldp
    end subroutine
    subroutine matmul_r8_t_t(a, b, p, m, k, n, lda, ldb, ldp) &
        bind(c, name="_MATMUL_r8_t_t")
      import
      real(c_double), intent(in) :: a(*), b(*)
      real(c_double), intent(inout) :: p(*)
      integer(c_int64_t), value :: m, k, n, lda, ldb, ldp
    end subroutine
    subroutine matmul_c4_n_n(a, b, p, m, k, n, lda, ldb, ldp) &
        bind(c, name="_MATMUL_c4_n_n")
      import
      complex(c_float_complex), intent(in) :: a(*), b(*)
      complex(c_float_complex), intent(inout) :: p(*)
      integer(c_int64_t), value :: m, k, n, lda, ldb, ldp
    end subroutine
    subroutine matmul_c4_t_n(a, b, p, m, k, n, lda, ldb, ldp) &
        bind(c, name="_MATMUL_c4_t_n")
      import
      complex(c_float_complex), intent(in) :: a(*), b(*)
      complex(c_float_complex), intent(inout) :: p(*)
      integer(c_int64_t), value :: m, k, n, lda, ldb, ldp
    end subroutine
    subroutine matmul_c4_n_t(a, b, p, m, k, n, lda, ldb, ldp) &
        bind(c, name="_MATMUL_c4_n_t")
      import
      complex(c_float_complex), intent(in) :: a(*), b(*)
      complex(c_float_complex), intent(inout) :: p(*)
      integer(c_int64_t), value :: m, k, n, lda, ldb, ldp
    end subroutine
    subroutine matmul_c4_t_t(a, b, p, m, k, n, lda, ldb, ldp) &
        bind(c, name="_MATMUL_c4_t_t")
      import
      complex(c_float_complex), intent(in) :: a(*), b(*)
      complex(c_float_complex), intent(inout) :: p(*)
      integer(c_int64_t), value :: m, k, n, lda, ldb, ldp
    end subroutine
    subroutine matmul_c8_n_n(a, b, p, m, k, n, lda, ldb, ldp) &
        bind(c, name="_MATMUL_c8_n_n")
      import
      complex(c_double_complex), intent(in) :: a(*), b(*)
      complex(c_double_complex), intent(inout) :: p(*)
      integer(c_int64_t), value :: m, k, n, lda, ldb, ldp
    end subroutine
    subroutine matmul_c8_t_n(a, b, p, m, k, n, lda, ldb, ldp) &
        bind(c, name="_MATMUL_c8_t_n")
      import
      complex(c_double_complex), intent(in) :: a(*), b(*)
      complex(c_double_complex), intent(inout) :: p(*)
      integer(c_int64_t), value :: m, k, n, lda, ldb, ldp
    end subroutine
    subroutine matmul_c8_n_t(a, b, p, m, k, n, lda, ldb, ldp) &
        bind(c, name="_MATMUL_c8_n_t")
      import
      complex(c_double_complex), intent(in) :: a(*), b(*)
      complex(c_double_complex), intent(inout) :: p(*)
      integer(c_int64_t), value :: m, k, n, lda, ldb, ldp
    end subroutine
    subroutine matmul_c8_t_t(a, b, p, m, k, n, lda, ldb, ldp) &
        bind(c, name="_MATMUL_c8_t_t")
      import
      complex(c_double_complex), intent(in) :: a(*), b(*)
      complex(c_double_complex), intent(inout) :: p(*)
      integer(c_int64_t), value :: m, k, n, lda, ldb, ldp
    end subroutine
  end interface
end module ksomd_matmul
