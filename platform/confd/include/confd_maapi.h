/*
 * ConfD C API, MAAPI part: reads of a transaction through a MAAPI socket.
 * Our own declarations of the documented subset; paths are printf-style
 * formats.
 */
#ifndef CONFD_MAAPI_H
#define CONFD_MAAPI_H

#include "confd_lib.h"

#ifdef __cplusplus
extern "C" {
#endif

enum maapi_iter_op {
  MOP_CREATED = 1,
  MOP_DELETED = 2,
  MOP_MODIFIED = 3,
  MOP_VALUE_SET = 4,
  MOP_MOVED_AFTER = 5,
  MOP_ATTR_SET = 6
};

enum maapi_iter_ret { ITER_STOP = 1, ITER_RECURSE = 2, ITER_CONTINUE = 3, ITER_UP = 4 };

typedef enum maapi_iter_op confd_iter_op;
typedef enum maapi_iter_ret confd_iter_ret;

/* Iteration over a list. After maapi_get_next, n is the number of keys of
 * the current entry in keys[], or 0 when the list is exhausted. */
struct maapi_cursor {
  char *path;
  int socket;
  int thandle;
  int n;
  confd_value_t keys[MAXKEYLEN];
  int prevterminated;
  void *cursor_id; /* the data store's own state */
};

/* 1 when the node exists, 0 when not, CONFD_ERR on a bad path. */
int maapi_exists(int sock, int thandle, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

/* Number of entries of a list, or CONFD_ERR. */
int maapi_num_instances(int sock, int thandle, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

/* Leaf reads; CONFD_OK when read. Strings and binaries are duplicated for
 * the caller, who releases them with confd_free_value(). */
int maapi_get_elem(int sock, int thandle, confd_value_t *v, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
int maapi_get_int32_elem(int sock, int thandle, int32_t *rval, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
int maapi_get_u_int32_elem(int sock, int thandle, u_int32_t *rval, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
int maapi_get_ipv4_and_plen_elem(int sock, int thandle, struct confd_ipv4_prefix *rval,
                                 const char *fmt, ...) __attribute__((format(printf, 4, 5)));
int maapi_get_ipv6_and_plen_elem(int sock, int thandle, struct confd_ipv6_prefix *rval,
                                 const char *fmt, ...) __attribute__((format(printf, 4, 5)));

/* Cursors over a list in data-store order. Every initialised cursor must be
 * destroyed. */
int maapi_init_cursor(int sock, int thandle, struct maapi_cursor *mc, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
int maapi_get_next(struct maapi_cursor *mc);
void maapi_destroy_cursor(struct maapi_cursor *mc);

/*
 * Bulk read: at most *nobj entries from the cursor's position, each as its
 * first n leaf values in schema order (keys first) into values[i * n + j].
 * On return *nobj is the number of entries read; mc->n is 0 when the list is
 * exhausted. Strings are duplicated for the caller.
 */
int maapi_get_objects(struct maapi_cursor *mc, confd_value_t *values, int n, int *nobj);

/* Evaluates expr in the new configuration with the context node fmt ("/" or
 * "" for the root; a context that does not exist leaves the root as the
 * context, so absolute expressions still see the whole configuration; a list
 * without keys or index is no node and is refused with CONFD_ERR_BADPATH).
 * *res is the string value of the first node selected (malloc'ed, empty when
 * nothing matches). Only expressions that select nodes are supported: one
 * whose result is a number, string or boolean (count(), string(),
 * comparisons) is refused with CONFD_ERR_XPATH. */
int maapi_xpath_eval_expr(int sock, int thandle, const char *expr, char **res,
                          void (*trace)(char *), const char *fmt, ...)
    __attribute__((format(printf, 6, 7)));

/* Walks the changes of the transaction below fmt, parents first. An [N] in
 * fmt names the N-th entry of the new configuration (of the old one when the
 * new one has fewer entries) in both; a path to a node that exists in
 * neither configuration has no changes (CONFD_OK, iter never called). */
int maapi_keypath_diff_iterate(
    int sock, int thandle,
    enum maapi_iter_ret (*iter)(confd_hkeypath_t *kp, enum maapi_iter_op op, confd_value_t *oldv,
                                confd_value_t *newv, void *state),
    int flags, void *initstate, const char *fmt, ...) __attribute__((format(printf, 6, 7)));

#ifdef __cplusplus
}
#endif

#endif /* CONFD_MAAPI_H */
