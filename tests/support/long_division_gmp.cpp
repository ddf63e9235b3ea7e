#include <gmp.h>

#include "support/long_division.h"

namespace {

void import_words(mpz_t z, const ksomd::test::Words& words, bool is_signed) {
  mpz_import(z, words.size(), -1, 4, 0, 0, words.data());
  if (is_signed && words.back() >> 31 != 0) {
    mpz_t top;
    mpz_init(top);
    mpz_setbit(top, 32 * words.size());
    mpz_sub(z, z, top);
    mpz_clear(top);
  }
}

void export_words(mpz_t z, ksomd::test::Words& words, std::size_t count) {
  mpz_fdiv_r_2exp(z, z, 32 * count);
  words.assign(count, 0);
  mpz_export(words.data(), nullptr, -1, 4, 0, 0, z);
}

}  // namespace

void ksomd::test::divide(const Words& a, const Words& b, bool is_signed, Words& quotient,
                         Words& remainder) {
  mpz_t x, y, q, r;
  mpz_inits(x, y, q, r, nullptr);
  import_words(x, a, is_signed);
  import_words(y, b, is_signed);
  mpz_tdiv_qr(q, r, x, y);
  export_words(q, quotient, a.size());
  export_words(r, remainder, a.size());
  mpz_clears(x, y, q, r, nullptr);
}
