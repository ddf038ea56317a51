// BLAS and LAPACK of the scipy-openblas32 wheel, for the host kernels.
//
// The wheel's library exports every routine with the prefix scipy_: its
// cblas.h declares the prefixed CBLAS names itself; lapack.h forms Fortran
// names through LAPACK_GLOBAL, which is given the prefix here. Integers are
// 32-bit (blasint is int), so callers check that dimensions fit.
#pragma once

#include <complex>
#include <cstdint>

#define LAPACK_GLOBAL(lcname, UCNAME) scipy_##lcname##_
#define lapack_complex_float std::complex<float>
#define lapack_complex_double std::complex<double>
#include <cblas.h>
#include <lapack.h>
