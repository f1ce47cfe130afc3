// Compile-time checks only, nothing to run: our declarations of the ConfD
// API follow the documented numbering and types (confd_types(3),
// confd_lib_maapi(3), confd_lib_lib(3)). A drift fails the build.
#include <confd_lib.h>
#include <confd_maapi.h>

#include <type_traits>

static_assert(C_HEXSTR == 47 && C_IPV6_AND_PLEN == 49 && C_BITBIG == 50 && C_EMPTY == 53 &&
              C_MAXTYPE == 54);
static_assert(ITER_STOP == 1 && ITER_RECURSE == 2 && ITER_CONTINUE == 3 && ITER_SUSPEND == 4 &&
              ITER_UP == 5);
static_assert(ITER_WANT_P_CONTAINER == 256);
static_assert(std::is_same_v<decltype(confd_lasterr()), char *>);
static_assert(std::is_same_v<decltype(confd_trans_ctx::validate_opaque), char *>);
static_assert(std::is_same_v<decltype(confd_value_t::val.d64), confd_decimal64>);
